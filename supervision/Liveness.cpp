#include "Liveness.h"

Liveness::Liveness(std::function<Clock::time_point()> now)
    : now(std::move(now)), lastCard(sinceEpoch()), lastNetwork(lastCard.load())
{
}

Liveness::Clock::rep Liveness::sinceEpoch() const
{
    return now().time_since_epoch().count();
}

void Liveness::cardBeat()
{
    lastCard.store(sinceEpoch(), std::memory_order_relaxed);
}

void Liveness::networkBeat()
{
    lastNetwork.store(sinceEpoch(), std::memory_order_relaxed);
}

Liveness::Clock::duration Liveness::quietFor(Side side) const
{
    const Clock::rep last = (side == Side::Card ? lastCard : lastNetwork).load(std::memory_order_relaxed);
    return Clock::duration(sinceEpoch() - last);
}

std::optional<Liveness::Side> Liveness::quietSide(Clock::duration period) const
{
    for (const Side side : {Side::Card, Side::Network}) {
        if (quietFor(side) > period)
            return side;
    }
    return std::nullopt;
}
