#include "RemovedCommand.h"

#include "MessageText.h"

QString RemovedCommand::build(QString const& tagId, QString const& reader, qint64 seq)
{
    QJsonObject message = MessageText::cardMessage(QStringLiteral("REMOVED"), tagId);
    message.insert(QStringLiteral("reader"), reader);
    message.insert(QStringLiteral("seq"), seq);
    return MessageText::of(message);
}
