#pragma once

#include <QString>

namespace Log {

// Standard error in the locale's encoding. The logger's own failures go here directly:
// they happen under the log lock, so they cannot go through the logger.
class DebugOutput
{
public:
    // The message and a line feed, flushed at once.
    static void output(const QString& message);
};

} // namespace Log
