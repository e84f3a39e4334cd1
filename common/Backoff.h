#pragma once

#include <algorithm>
#include <chrono>

// The pause before the next attempt at something that keeps failing: doubling from `first`
// up to `longest`, after `freeRetries` attempts that get no pause at all (so that a single
// failure costs nothing). Not thread-safe: each retrying loop keeps its own.
class Backoff
{
public:
    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds longest, int freeRetries = 0)
        : first(first), longest(longest), freeRetries(freeRetries)
    {
    }

    // The pause to take now; the one after it is longer, up to `longest`.
    std::chrono::milliseconds next()
    {
        if (failures++ < freeRetries)
            return std::chrono::milliseconds::zero();
        const std::chrono::milliseconds pause = current;
        current = std::min(std::max(current * 2, first), longest);
        return std::min(pause, longest);
    }

    // The next attempt starts over from the first pause.
    void reset()
    {
        failures = 0;
        current = first;
    }

private:
    std::chrono::milliseconds first;
    std::chrono::milliseconds longest;
    int freeRetries;
    int failures = 0;
    std::chrono::milliseconds current = first;
};
