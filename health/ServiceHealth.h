#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>

// How the service is, for an administrator or a monitoring check: whether PC/SC answers and
// since when, the readers by display name, how many clients listen and when a card was last
// seen. Never which card: nothing here may identify a badge.
//
// The controller and the server thread keep it current from wherever things happen; every
// member may be called from any thread.
class ServiceHealth
{
public:
    using Clock = std::chrono::system_clock;

    struct Snapshot
    {
        QString version;
        Clock::time_point started;
        bool pcscUp = false;
        Clock::time_point pcscSince;
        QStringList readers;
        int clients = 0;
        std::optional<Clock::time_point> lastCardEvent;
    };

    explicit ServiceHealth(QString version, std::function<Clock::time_point()> now = &Clock::now);

    // PC/SC answering or gone; its readers go with it.
    void setPcscUp(bool up);
    void readerConnected(const QString& displayName);
    void readerDisconnected(const QString& displayName);
    void setClientCount(int clients);
    void cardEvent();

    // Called after each change that alters summary(), on the thread that made it, outside
    // the lock. Set before anything reports.
    void setChangeListener(std::function<void()> listener);

    Snapshot snapshot() const;
    // {"version", "pcsc": "up"|"down", "pcscSince", "readers", "clients", "uptimeSeconds",
    //  "lastCardEvent" (null before the first)}; times in UTC, ISO 8601.
    QByteArray toJson() const;
    // One line: "2 readers, 3 clients, PC/SC up", or "waiting for PC/SC since 12:03".
    QString summary() const;
    static QString summaryOf(const Snapshot& snapshot);

private:
    void changed();

    const std::function<Clock::time_point()> now;
    std::function<void()> listener;
    mutable std::mutex mutex;
    Snapshot state;
};
