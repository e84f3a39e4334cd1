#include "VersionCommand.h"

#include "MessageText.h"

#include <QJsonObject>

QString VersionCommand::build(QString const& version)
{
    QJsonObject message;
    message.insert(QStringLiteral("type"), QStringLiteral("VERSION"));
    message.insert(QStringLiteral("version"), version);
    message.insert(QStringLiteral("error"), QJsonValue::Null);
    return MessageText::of(message);
}
