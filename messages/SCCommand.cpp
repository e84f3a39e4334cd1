#include "SCCommand.h"

#include "MessageText.h"

#include <QJsonObject>

QString SCCommand::build(QString const& cardId)
{
    QJsonObject message;
    message.insert(QStringLiteral("type"), QStringLiteral("SC"));
    message.insert(QStringLiteral("tag_id"), cardId);
    message.insert(QStringLiteral("error"), QJsonValue::Null);
    return MessageText::of(message);
}
