#include "SCCommand.h"

#include "MessageText.h"

QString SCCommand::build(QString const& cardId)
{
    return MessageText::of(MessageText::cardMessage(QStringLiteral("SC"), cardId));
}

QString SCCommand::buildVersion2(QString const& cardId, CardReport const& report)
{
    QJsonObject message = MessageText::cardMessage(QStringLiteral("SC"), cardId);
    report.addTo(message);
    return MessageText::of(message);
}
