#include "MessageText.h"

#include <QJsonDocument>

QString MessageText::of(const QJsonObject& message)
{
    return QString::fromUtf8(QJsonDocument(message).toJson());
}

QJsonObject MessageText::cardMessage(const QString& type, const QString& tagId)
{
    QJsonObject message;
    message.insert(QStringLiteral("type"), type);
    message.insert(QStringLiteral("tag_id"), tagId);
    message.insert(QStringLiteral("error"), QJsonValue::Null);
    return message;
}
