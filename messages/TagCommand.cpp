#include "TagCommand.h"

#include "MessageText.h"

QString TagCommand::build(QString const& tagId)
{
    return MessageText::of(MessageText::cardMessage(QStringLiteral("TAG"), tagId));
}

QString TagCommand::buildVersion2(QString const& tagId, QString const& uidHex, CardReport const& report)
{
    QJsonObject message = MessageText::cardMessage(QStringLiteral("TAG"), tagId);
    message.insert(QStringLiteral("uid"), uidHex);
    report.addTo(message);
    return MessageText::of(message);
}
