#include "TagCommand.h"

TagCommand::TagCommand() = default;

TagCommand::~TagCommand() = default;

QJsonObject TagCommand::build(QString const& tagId)
{
    QJsonObject message;
    message.insert(QStringLiteral("type"), QStringLiteral("TAG"));
    message.insert(QStringLiteral("tag_id"), tagId);
    message.insert(QStringLiteral("error"), QJsonValue::Null);
    return message;
}
