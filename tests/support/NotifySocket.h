#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
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
    enum class Namespace
    {
        Path,
        Abstract
    };

    explicit NotifySocket(Namespace space = Namespace::Path)
    {
        static std::atomic<int> made{0};
        name = space == Namespace::Path
                   ? (folder.path() + QStringLiteral("/notify")).toLocal8Bit()
                   : QStringLiteral("@tiv-test-notify-%1-%2").arg(getpid()).arg(made++).toLocal8Bit();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
        if (space == Namespace::Abstract)
            address.sun_path[0] = '\0';
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(name.size()));
        if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
            close(fd);
            fd = -1;
        }
    }
    ~NotifySocket()
    {
        if (fd >= 0)
            close(fd);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool isOpen() const { return fd >= 0; }
    // As NOTIFY_SOCKET names it.
    QString address() const { return QString::fromLocal8Bit(name); }

    // The next datagram; none after `timeoutMs` (0: only one that is already there).
    std::optional<QByteArray> next(int timeoutMs)
    {
        pollfd wait{fd, POLLIN, 0};
        if (fd < 0 || poll(&wait, 1, timeoutMs) != 1)
            return std::nullopt;
        char buffer[4096];
        const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
        if (size < 0)
            return std::nullopt;
        return QByteArray(buffer, static_cast<int>(size));
    }

    // Reads datagrams until one has a line that starts with `prefix`, and returns that line;
    // each datagram on the way goes to `seen`. None when `timeoutMs` pass first.
    std::optional<QByteArray> awaitLine(const QByteArray& prefix, int timeoutMs,
                                        const std::function<void(const QByteArray&)>& seen = {})
    {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            const std::optional<QByteArray> datagram = next(static_cast<int>(std::max<long long>(left.count(), 0)));
            if (!datagram)
                return std::nullopt;
            if (seen)
                seen(*datagram);
            for (const QByteArray& line : datagram->split('\n')) {
                if (line.startsWith(prefix))
                    return line;
            }
        }
    }

private:
    QTemporaryDir folder;
    QByteArray name;
    int fd = -1;
};
