#include "PCSCMonitor.h"

#include "Backoff.h"
#include "Log.h"

PCSCMonitor::PCSCMonitor(std::function<bool()> probe, QObject* parent)
    : PCSCMonitor(std::move(probe), Pacing(), parent)
{
}

PCSCMonitor::PCSCMonitor(std::function<bool()> probeFunction, Pacing pacing, QObject* parent)
    : QObject(parent), probe(std::move(probeFunction)), pacing(pacing), stopped(false)
{
}

PCSCMonitor::~PCSCMonitor() = default;

void PCSCMonitor::setHeartbeat(std::function<void()> beat)
{
    heartbeat = std::move(beat);
}

void PCSCMonitor::process()
{
    if (!probe)
        return;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point began = Clock::now();
    Clock::time_point lastReport = began;
    int attempts = 0;
    Backoff retry(pacing.firstRetry, pacing.longestRetry);

    while (pause(std::chrono::milliseconds::zero())) {
        if (heartbeat)
            heartbeat();
        if (probe()) {
            emit pcscAvailable();
            return;
        }
        ++attempts;
        const Clock::time_point now = Clock::now();
        if (now - lastReport >= pacing.reportInterval) {
            TLOG_INFO() << "Still waiting for the PC/SC service:"
                        << std::chrono::duration_cast<std::chrono::seconds>(now - began).count() << "s,"
                        << attempts << "attempts.";
            lastReport = now;
        }
        if (!pause(retry.next()))
            return;
    }
}

void PCSCMonitor::stop()
{
    std::lock_guard<std::mutex> lock(mutex);
    stopped = true;
    stopRequested.notify_all();
}

// False once stopped.
bool PCSCMonitor::pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex);
    return !stopRequested.wait_for(lock, duration, [this] { return stopped; });
}
