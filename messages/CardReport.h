#pragma once

#include <QJsonObject>
#include <QString>

// What protocol 2 adds to every card message: on which reader, whether it is the periodic
// re-report of a card still lying there, and the event's number.
struct CardReport
{
    QString reader;
    bool repeat = false;
    qint64 seq = 0;

    void addTo(QJsonObject& message) const
    {
        message.insert(QStringLiteral("reader"), reader);
        message.insert(QStringLiteral("repeat"), repeat);
        message.insert(QStringLiteral("seq"), seq);
    }
};
