#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>

// When each side of the service last showed it still works: the card side (the card loop, or
// the monitor while PC/SC is away) and the network thread. Beats come from any thread.
class Liveness
{
public:
    using Clock = std::chrono::steady_clock;

    enum class Side
    {
        Card,
        Network
    };

    // Both sides count as heard of at construction.
    explicit Liveness(std::function<Clock::time_point()> now = &Clock::now);

    void cardBeat();
    void networkBeat();

    // The side not heard of within `period`, the card side first; none while both were.
    std::optional<Side> quietSide(Clock::duration period) const;
    Clock::duration quietFor(Side side) const;

private:
    Clock::rep sinceEpoch() const;

    const std::function<Clock::time_point()> now;
    std::atomic<Clock::rep> lastCard;
    std::atomic<Clock::rep> lastNetwork;
};
