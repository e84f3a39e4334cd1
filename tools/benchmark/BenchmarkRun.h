#pragma once

#include "BenchmarkReport.h"
#include "TagArrivals.h"

#include <QtGlobal>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class ReaderPresenceWatch;
class ServiceStack;
class WssClientGroup;

struct BenchmarkOptions
{
    int taps = 50;         // with one client
    int idleSeconds = 30;  // with both readers, and again with none
    std::vector<int> clients = {1, 100, 1000, 10000};
    int fanOutTaps = 10;   // for each number of clients but one
    int restartCycles = 20;
    int stormSeconds = 30;
    int reconnects = 200; // of each kind
    std::optional<int> logLevel; // the service's own default unless set
};

// The measurements, stage by stage, into one report. Each stage blocks: run it on a thread of
// its own while the thread that owns the service's process drains the service's output.
// cancel() may come from any thread; it ends the current stage soon and skips the others.
class BenchmarkRun
{
public:
    explicit BenchmarkRun(BenchmarkOptions options);

    // Taps with one client, the idle service, the fan-out to each number of clients, then
    // reconnecting and the connect storm.
    void measureWithReaders(const ServiceStack& target);
    void measureIdleWithoutReader(const ServiceStack& target);
    // Kills and restarts the stack's pcscd on the application's main thread, which must be
    // running its event loop: the daemon dies with the thread that started it.
    void measureRestarts(ServiceStack& target);

    void cancel();
    bool isCancelled() const { return cancelled; }
    // Between stages only.
    BenchmarkReport& report() { return result; }

private:
    struct Tap
    {
        TagArrivals::Clock::time_point laid;
        TagArrivals::Clock::time_point seen;
        std::optional<TagArrivals::Spread> spread; // none: not every client had the TAG in time
        std::optional<double> plainReadMs;
    };

    // Lets cancel() reach what a stage waits on, while the hook lives.
    class CancelHook
    {
    public:
        CancelHook(BenchmarkRun& run, std::function<void()> cancel);
        ~CancelHook();

    private:
        BenchmarkRun& run;
        std::list<std::function<void()>>::iterator at;
    };

    IdleResult measureIdle(qint64 pid);
    // `taps` taps, or as many as there are until `until`.
    RoundResult runRound(const ServiceStack& target, ReaderPresenceWatch& presence, int clients, int taps,
                         std::optional<TagArrivals::Clock::time_point> until = std::nullopt);
    void measureReconnects(const ServiceStack& target);
    void measureStorm(const ServiceStack& target, ReaderPresenceWatch& presence);
    bool connectClients(WssClientGroup& group, TagArrivals& arrivals, quint16 port, int clients, std::string* error);
    // Lays a fresh tag and takes it away once every client has its TAG or `messageTimeout`
    // has passed. Nothing when PC/SC did not see it come and go, or when cancelled.
    // With `timePlainRead`, a plain PC/SC client reads the card too once the service is done.
    std::optional<Tap> tap(const ServiceStack& target, ReaderPresenceWatch& presence, TagArrivals& arrivals,
                           std::chrono::milliseconds messageTimeout, std::string* error, bool timePlainRead = false);
    // Waits unless cancelled; false when cancelled.
    bool pause(std::chrono::milliseconds duration);

    const BenchmarkOptions options;
    BenchmarkReport result;
    int tapCount = 0;

    std::mutex mutex;
    std::condition_variable wake;
    std::atomic<bool> cancelled{false};
    std::list<std::function<void()>> cancelHooks; // guarded by mutex
};
