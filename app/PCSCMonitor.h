#pragma once

#include <QObject>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

// Waits on its own thread for the PC/SC service: asks `probe` again and again, quickly at
// first, until it answers, then signals pcscAvailable() and returns. It starts nothing
// itself; its owner does, on the owner's thread.
class PCSCMonitor : public QObject
{
    Q_OBJECT

public:
    struct Pacing
    {
        std::chrono::milliseconds firstRetry{100};
        std::chrono::milliseconds longestRetry{1000};
        // While the service stays away the log hears of it at most this often.
        std::chrono::milliseconds reportInterval{std::chrono::minutes(1)};
    };

    explicit PCSCMonitor(std::function<bool()> probe, QObject* parent = nullptr);
    PCSCMonitor(std::function<bool()> probe, Pacing pacing, QObject* parent = nullptr);
    ~PCSCMonitor() override;

    // Called on the monitor's thread before each probe. Set it before process() runs.
    void setHeartbeat(std::function<void()> beat);

signals:
    void pcscAvailable();

public slots:
    void process();
    // Ends process() at once, also when called before it began. Callable from any thread.
    void stop();

private:
    bool pause(std::chrono::milliseconds duration);

    std::function<bool()> probe;
    std::function<void()> heartbeat;
    Pacing pacing;
    std::mutex mutex;
    std::condition_variable stopRequested;
    bool stopped;
};
