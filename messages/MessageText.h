#pragma once

#include <QJsonObject>
#include <QString>

// What clients receive for a message: the indented document with its keys sorted and a
// trailing line feed, as UTF-8. Clients compare these texts, so every message kind is turned
// into text here and nowhere else.
class MessageText
{
public:
    static QString of(const QJsonObject& message);
    // The keys every card message has: its type, the card's ID as "tag_id", and no error.
    static QJsonObject cardMessage(const QString& type, const QString& tagId);
};
