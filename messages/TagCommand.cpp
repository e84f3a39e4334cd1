#include "TagCommand.h"

#include "MessageText.h"

#include <QJsonObject>

QString TagCommand::build(QString const& tagId)
{
    QJsonObject message;
    message.insert(QStringLiteral("type"), QStringLiteral("TAG"));
    message.insert(QStringLiteral("tag_id"), tagId);
    message.insert(QStringLiteral("error"), QJsonValue::Null);
    return MessageText::of(message);
}
