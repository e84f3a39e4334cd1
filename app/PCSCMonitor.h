#pragma once

#include <QObject>

#include <condition_variable>
#include <functional>
#include <mutex>

// Retries one card-handling attempt on its own thread until it succeeds or the monitor is
// stopped, so the service can start before the PC/SC service does.
class PCSCMonitor : public QObject
{
    Q_OBJECT

public:
    static constexpr std::chrono::seconds retryInterval{15};

    PCSCMonitor(std::function<bool()> attempt, QObject* parent = nullptr);
    ~PCSCMonitor() override;

public slots:
    void process();
    void stop();

private:
    bool isRunning();

    std::function<bool()> attempt;
    // Standard locks rather than Qt's: the thread sanitizer sees through these.
    std::mutex mutex;
    bool running;
    bool stopped;
    std::condition_variable stopRequested;
};
