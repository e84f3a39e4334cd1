#include "StdinLines.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

StdinLines::StdinLines()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        wakeRead = fds[0];
        wakeWrite = fds[1];
    }
}

StdinLines::~StdinLines()
{
    if (wakeRead >= 0)
        ::close(wakeRead);
    if (wakeWrite >= 0)
        ::close(wakeWrite);
}

std::optional<std::string> StdinLines::next()
{
    for (;;) {
        const size_t end = pending.find('\n');
        if (end != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            return line;
        }
        if (endOfInput) {
            if (pending.empty())
                return std::nullopt;
            std::string last;
            last.swap(pending);
            return last;
        }

        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {wakeRead, POLLIN, 0}};
        if (::poll(fds, wakeRead >= 0 ? 2 : 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        if (fds[1].revents != 0)
            return std::nullopt;
        char buffer[4096];
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count <= 0)
            endOfInput = true;
        else
            pending.append(buffer, static_cast<size_t>(count));
    }
}

void StdinLines::cancel()
{
    if (wakeWrite >= 0) {
        const char wake = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeWrite, &wake, 1);
    }
}
