#include "SystemdNotifier.h"

#include "Log.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool isUnixAddress(const QByteArray& address)
{
    return address.size() > 1 && (address.startsWith('/') || address.startsWith('@'))
           && static_cast<size_t>(address.size()) < sizeof(sockaddr_un::sun_path);
}

} // namespace

SystemdNotifier::SystemdNotifier(QByteArray socketAddress, std::optional<std::chrono::microseconds> watchdogPeriod)
    : address(std::move(socketAddress)), watchdog(watchdogPeriod)
{
    if (!address.isEmpty() && !isUnixAddress(address)) {
        // Newer managers may name other kinds of socket; this service speaks to unix ones only.
        TLOG_WARN() << "NOTIFY_SOCKET is not a unix socket this service can use:" << address.constData();
        address.clear();
    }
    if (!isActive())
        watchdog.reset();
}

SystemdNotifier SystemdNotifier::fromEnvironment(const QProcessEnvironment& environment)
{
    const QByteArray socketAddress = environment.value(QStringLiteral("NOTIFY_SOCKET")).toLocal8Bit();
    std::optional<std::chrono::microseconds> watchdogPeriod;
    bool valid = false;
    const qulonglong usec = environment.value(QStringLiteral("WATCHDOG_USEC")).toULongLong(&valid);
    if (valid && usec > 0) {
        // Set for a process the manager started before this one (a wrapper): not ours to answer.
        const QString pid = environment.value(QStringLiteral("WATCHDOG_PID"));
        if (pid.isEmpty() || pid.toLongLong() == static_cast<qint64>(getpid()))
            watchdogPeriod = std::chrono::microseconds(usec);
    }
    return SystemdNotifier(socketAddress, watchdogPeriod);
}

bool SystemdNotifier::notify(const QByteArray& state)
{
    if (!isActive())
        return false;
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    std::memcpy(target.sun_path, address.constData(), static_cast<size_t>(address.size()));
    if (address.startsWith('@'))
        target.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(address.size()));

    int error = 0;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = errno;
    } else {
        const ssize_t sent = sendto(fd, state.constData(), static_cast<size_t>(state.size()), MSG_NOSIGNAL,
                                    reinterpret_cast<const sockaddr*>(&target), length);
        if (sent != state.size())
            error = sent < 0 ? errno : EMSGSIZE;
        close(fd);
    }
    if (error != 0 && error != lastFailure)
        TLOG_WARN() << "Could not notify the service manager at" << address.constData() << ":" << std::strerror(error);
    lastFailure = error;
    return error == 0;
}
