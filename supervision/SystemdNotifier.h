#pragma once

#include <QByteArray>
#include <QProcessEnvironment>

#include <chrono>
#include <optional>

// Tells the service manager how the service is, through its notify socket: one datagram of
// "NAME=value" lines to the AF_UNIX socket that NOTIFY_SOCKET names ("@" for the abstract
// namespace). Without NOTIFY_SOCKET it is inactive and sends nothing.
//
// Meant for one thread; a send may block briefly while the manager's queue is full.
class SystemdNotifier
{
public:
    // Inactive.
    SystemdNotifier() = default;
    // `socketAddress` as NOTIFY_SOCKET gives it; `watchdogPeriod` how often the manager wants
    // to hear WATCHDOG=1 at the latest, or none.
    SystemdNotifier(QByteArray socketAddress, std::optional<std::chrono::microseconds> watchdogPeriod);

    // NOTIFY_SOCKET, and WATCHDOG_USEC unless WATCHDOG_PID names another process.
    static SystemdNotifier fromEnvironment(const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment());

    bool isActive() const { return !address.isEmpty(); }
    std::optional<std::chrono::microseconds> watchdogPeriod() const { return watchdog; }

    // Sends `state` as one datagram; false when inactive or when it could not be sent (logged,
    // once for a run of the same failure).
    bool notify(const QByteArray& state);

private:
    QByteArray address;
    std::optional<std::chrono::microseconds> watchdog;
    int lastFailure = 0;
};
