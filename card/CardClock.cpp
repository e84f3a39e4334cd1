#include "CardClock.h"

namespace CardClock {

Clock::time_point now()
{
    return Clock::now();
}

void pause(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration,
           const std::function<bool()>& done)
{
    wake.wait_for(lock, duration, done);
}

} // namespace CardClock
