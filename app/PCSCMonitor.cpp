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
        QMutexLocker lock(&mutex);
        running = !stopped;
    }
    if (!attempt)
        return;

    while (isRunning()) {
        if (attempt())
            return;
        // A stop wakes the pause early instead of letting shut-down wait out the interval.
        QMutexLocker lock(&mutex);
        if (running)
            stopRequested.wait(&mutex, retryIntervalMs);
    }
}

void PCSCMonitor::stop()
{
    QMutexLocker lock(&mutex);
    running = false;
    stopped = true;
    stopRequested.wakeAll();
}

bool PCSCMonitor::isRunning()
{
    QMutexLocker lock(&mutex);
    return running;
}
