#pragma once

namespace Log {

enum Level
{
    LevelTrace = 0,
    LevelDebug = 1,
    LevelInfo = 2,
    LevelWarn = 3,
    LevelError = 4,
    LevelFatal = 5,
    LevelOff = 6
};

} // namespace Log
