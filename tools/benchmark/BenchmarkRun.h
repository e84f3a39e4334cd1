#pragma once

#include "TagArrivals.h"

#include "ReaderPresenceWatch.h"

#include <QString>
#include <QThread>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iosfwd>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct BenchmarkOptions
{
    int taps = 50;         // with one client
    int idleSeconds = 30;
    std::vector<int> clients = {1, 100, 1000};
    int fanOutTaps = 10;   // for each number of clients but one
};

// Where the service under test runs.
struct BenchmarkTarget
{
    qint64 servicePid = 0;
    quint16 servicePort = 0;
    quint16 vpcdPort = 0;
    QString readerName;
};

// All times in milliseconds from the moment the card connected to the virtual reader.
struct RoundResult
{
    int clients = 0;
    double connectSeconds = 0;
    long residentKiB = 0;
    std::vector<double> detection;  // a plain PC/SC client sees the card
    std::vector<double> firstClient;
    std::vector<double> lastClient;
    std::vector<double> serviceShare; // from detection to the last client
    std::string error;
};

struct BenchmarkReport
{
    int idleSeconds = 0;
    std::optional<double> idleCpuPercent;
    std::optional<long> idleResidentKiB;
    std::vector<RoundResult> rounds;
    std::string error;
    bool cancelled = false;

    bool complete() const;
    void print(std::ostream& out) const;
};

// Runs the measurements on a thread of its own, so that the thread that owns the service's
// process can keep draining the service's output meanwhile.
class BenchmarkRun : public QThread
{
    Q_OBJECT

public:
    BenchmarkRun(BenchmarkOptions options, BenchmarkTarget target);
    ~BenchmarkRun() override;

    // From any thread: the run ends soon with what it has.
    void cancel();
    // Read it once the thread has finished.
    const BenchmarkReport& report() const { return result; }

protected:
    void run() override;

private:
    struct TapTimes
    {
        double detection;
        double firstClient;
        double lastClient;
    };

    void measureIdle();
    RoundResult runRound(int clients, int taps);
    std::optional<TapTimes> tap(TagArrivals& arrivals, std::string* error);
    // Waits unless cancelled; false when cancelled.
    bool pause(std::chrono::milliseconds duration);

    const BenchmarkOptions options;
    const BenchmarkTarget target;
    BenchmarkReport result;
    ReaderPresenceWatch presence;
    int tapCount = 0;

    std::mutex mutex;
    std::condition_variable wake;
    std::atomic<bool> cancelled{false};
    TagArrivals* currentArrivals = nullptr; // guarded by mutex
};
