#include "PCSCMonitor.h"

PCSCMonitor::PCSCMonitor(std::function<bool()> attemptFunction, QObject* parent)
    : QObject(parent), attempt(std::move(attemptFunction)), running(false), stopped(false)
{
}

PCSCMonitor::~PCSCMonitor() = default;

void PCSCMonitor::process()
{
    {
        // A stop that came before the thread got here must not be forgotten, or shut-down
        // would wait for a loop that never ends.
        std::lock_guard<std::mutex> lock(mutex);
        running = !stopped;
    }
    if (!attempt)
        return;

    while (isRunning()) {
        if (attempt())
            return;
        // A stop wakes the pause early instead of letting shut-down wait out the interval.
        std::unique_lock<std::mutex> lock(mutex);
        stopRequested.wait_for(lock, retryInterval, [this] { return !running; });
    }
}

void PCSCMonitor::stop()
{
    std::lock_guard<std::mutex> lock(mutex);
    running = false;
    stopped = true;
    stopRequested.notify_all();
}

bool PCSCMonitor::isRunning()
{
    std::lock_guard<std::mutex> lock(mutex);
    return running;
}
