#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QString>
#include <QTemporaryDir>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// A stand-in for the service manager's notify socket: a bound unix datagram socket, in a
// temporary folder or in the abstract namespace, whose address goes into NOTIFY_SOCKET.
class NotifySocket
{
public:
    explicit NotifySocket(bool abstract = false)
    {
        static std::atomic<int> made{0};
        name = abstract ? QStringLiteral("@tiv-test-notify-%1-%2").arg(getpid()).arg(made++).toLocal8Bit()
                        : (folder.path() + QStringLiteral("/notify")).toLocal8Bit();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
        if (abstract)
            address.sun_path[0] = '\0';
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(name.size()));
        bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    }
    ~NotifySocket() { close(fd); }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool isOpen() const { return bound; }
    // As NOTIFY_SOCKET names it.
    QString address() const { return QString::fromLocal8Bit(name); }

    // The next datagram; none after `timeoutMs` (0: only one that is already there).
    std::optional<QByteArray> next(int timeoutMs)
    {
        pollfd wait{fd, POLLIN, 0};
        char buffer[4096];
        const ssize_t size = bound && poll(&wait, 1, timeoutMs) == 1 ? recv(fd, buffer, sizeof buffer, 0) : -1;
        return size < 0 ? std::nullopt : std::optional<QByteArray>(QByteArray(buffer, static_cast<int>(size)));
    }

    // The first line that starts with `prefix` in the datagrams to come; none after `timeoutMs`.
    std::optional<QByteArray> awaitLine(const QByteArray& prefix, int timeoutMs)
    {
        const QDeadlineTimer deadline(timeoutMs);
        while (const std::optional<QByteArray> datagram = next(static_cast<int>(deadline.remainingTime()))) {
            for (const QByteArray& line : datagram->split('\n')) {
                if (line.startsWith(prefix))
                    return line;
            }
        }
        return std::nullopt;
    }

private:
    QTemporaryDir folder;
    QByteArray name;
    int fd = -1;
    bool bound = false;
};
