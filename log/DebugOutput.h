#pragma once

#include "LogLevel.h"

#include <QString>

namespace Log {

// Standard error in the locale's encoding, written without ever waiting: a terminal or pipe
// that stalls must not stall the threads that log. A line that cannot go at once is dropped and
// counted, and the next one that goes is preceded by that count. When standard error is the
// journal, every line starts with its syslog priority.
// The logger's own failures go here directly: they happen under the log lock, so they cannot
// go through the logger.
class DebugOutput
{
public:
    // The message and a line feed, whole or not at all (a line cut short by a full pipe is
    // finished before anything else goes).
    static void output(const QString& message, Level level = LevelError);
    // Sends Qt's own messages (qDebug() and the like) here as well, in Qt's format; they do
    // not reach the logger's other destinations.
    static void takeOverQtMessages();
};

} // namespace Log
