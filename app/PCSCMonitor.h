#pragma once

#include <QMutex>
#include <QObject>
#include <QWaitCondition>

#include <functional>

// Retries one card-handling attempt on its own thread until it succeeds or the monitor is
// stopped, so the service can start before the PC/SC service does.
class PCSCMonitor : public QObject
{
    Q_OBJECT

public:
    static constexpr unsigned long retryIntervalMs = 15000;

    PCSCMonitor(std::function<bool()> attempt, QObject* parent = nullptr);
    ~PCSCMonitor() override;

public slots:
    void process();
    void stop();

private:
    bool isRunning();

    std::function<bool()> attempt;
    QMutex mutex;
    bool running;
    bool stopped;
    QWaitCondition stopRequested;
};
