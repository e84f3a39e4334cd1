#include "ReaderCommand.h"

#include "MessageText.h"

#include <QJsonObject>

QString ReaderCommand::build(QString const& readerName, bool connected)
{
    QJsonObject message;
    message.insert(QStringLiteral("type"), QStringLiteral("READER"));
    message.insert(QStringLiteral("event"),
                   connected ? QStringLiteral("CONNECTED") : QStringLiteral("DISCONNECTED"));
    message.insert(QStringLiteral("name"), readerName);
    message.insert(QStringLiteral("error"), QJsonValue::Null);
    return MessageText::of(message);
}
