#include "DebugOutput.h"

#include <QByteArray>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Log {

namespace {

struct Output
{
    std::mutex mutex;
    QByteArray unfinished;
    unsigned long long dropped = 0;
    // Found once, rather than asked again with a failing call for every line.
    bool notASocket = false;
};

// Never freed: Qt may hand over a message while static objects are being destroyed.
Output& output()
{
    static Output* const state = new Output;
    return *state;
}

// systemd names the stream it connected by device and inode; a child of the service, or a
// redirection, may have left the variable behind with something else on descriptor 2.
bool isJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (!stream)
        return false;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char rest = 0;
    if (std::sscanf(stream, "%llu:%llu%c", &device, &inode, &rest) != 2)
        return false;
    struct stat status;
    return fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

const char* priority(Level level)
{
    switch (level) {
    case LevelTrace:
    case LevelDebug: return "<7>";
    case LevelInfo: return "<6>";
    case LevelWarn: return "<4>";
    case LevelError: return "<3>";
    case LevelFatal: return "<2>";
    case LevelOff: break;
    }
    return "<6>";
}

// What went out without waiting. O_NONBLOCK is not used: it belongs to the open file, which
// the service shares with its terminal or whoever else holds the pipe.
size_t writeNow(const QByteArray& data, bool& notASocket)
{
    if (!notASocket) {
        const ssize_t sent = send(STDERR_FILENO, data.constData(), size_t(data.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0)
            return size_t(sent);
        if (errno != ENOTSOCK)
            return 0;
        notASocket = true;
    }
    // A pipe with room for PIPE_BUF bytes takes that many whole; a broken one is left alone
    // rather than raising SIGPIPE.
    size_t done = 0;
    while (done < size_t(data.size())) {
        pollfd ready{STDERR_FILENO, POLLOUT, 0};
        if (poll(&ready, 1, 0) != 1 || (ready.revents & (POLLERR | POLLHUP | POLLNVAL)))
            break;
        const size_t chunk = std::min<size_t>(PIPE_BUF, size_t(data.size()) - done);
        const ssize_t written = write(STDERR_FILENO, data.constData() + done, chunk);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            break;
        done += size_t(written);
    }
    return done;
}

QByteArray lineFor(const QString& message, Level level, bool journal)
{
    QByteArray line = message.toLocal8Bit();
    if (journal) {
        // The journal takes every line feed as a new entry, each with a priority of its own.
        line.replace('\n', QByteArray("\n") + priority(level));
        line.prepend(priority(level));
    }
    return line + '\n';
}

Level levelOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return LevelDebug;
    case QtInfoMsg: return LevelInfo;
    case QtWarningMsg: return LevelWarn;
    case QtCriticalMsg: return LevelError;
    case QtFatalMsg: return LevelFatal;
    }
    return LevelDebug;
}

void qtMessage(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    DebugOutput::output(qFormatLogMessage(type, context, message), levelOf(type));
}

} // namespace

void DebugOutput::output(const QString& message, Level level)
{
    const bool journal = isJournal();
    Output& state = Log::output();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.unfinished.isEmpty()) {
        state.unfinished.remove(0, int(writeNow(state.unfinished, state.notASocket)));
        if (!state.unfinished.isEmpty()) {
            ++state.dropped;
            return;
        }
    }
    QByteArray text;
    if (state.dropped > 0)
        text = lineFor(QStringLiteral("Log: %1 line(s) not written to standard error.").arg(state.dropped),
                       LevelWarn, journal);
    text += lineFor(message, level, journal);
    const size_t done = writeNow(text, state.notASocket);
    if (done == 0) {
        ++state.dropped;
        return;
    }
    state.unfinished = text.mid(int(done));
    state.dropped = 0;
}

void DebugOutput::takeOverQtMessages()
{
    qInstallMessageHandler(qtMessage);
}

} // namespace Log
