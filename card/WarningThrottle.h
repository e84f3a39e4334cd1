#pragma once

#include "CardClock.h"

#include <chrono>
#include <map>
#include <string>

// Lets warnings about a reader into the log at most once per interval and counts those held
// back, so a card that fails again and again cannot flood the log.
class WarningThrottle
{
public:
    explicit WarningThrottle(std::chrono::milliseconds interval) : interval(interval) {}

    // Whether a warning about `reader` may be logged now; if so, `heldBack` is how many were
    // not since the last one that was.
    bool admit(const std::string& reader, int& heldBack);

private:
    struct Reader
    {
        CardClock::Clock::time_point lastLogged;
        int heldBack = 0;
    };

    const std::chrono::milliseconds interval;
    std::map<std::string, Reader> readers;
};
