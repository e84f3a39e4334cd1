#include "MessageText.h"

#include <QJsonDocument>

QString MessageText::of(const QJsonObject& message)
{
    return QString::fromUtf8(QJsonDocument(message).toJson());
}
