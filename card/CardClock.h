#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

// The time behind the reader-list refresh and the pauses of the card loop. Kept behind a
// link seam so that tests of the loop can step through refreshes and pauses without
// waiting for them.
namespace CardClock {

using Clock = std::chrono::steady_clock;

Clock::time_point now();

// Waits on `wake` for at most `duration`, or until `done()` holds; `lock` holds the mutex
// that guards what `done` reads.
void pause(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration,
           const std::function<bool()>& done);

} // namespace CardClock
