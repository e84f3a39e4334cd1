#include "BenchmarkRun.h"

#include "CardPersonality.h"
#include "MachineFloors.h"
#include "ProcessStats.h"
#include "ReaderPresenceWatch.h"
#include "ServiceStack.h"
#include "VirtualCard.h"
#include "WssClientGroup.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <cstdio>
#include <future>
#include <iostream>
#include <random>
#include <set>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// pcscd asks the virtual reader for its card this often.
const auto readerPollInterval = 400ms;
const auto presenceTimeout = 10s;
const int layAttempts = 3;
const auto messageTimeout = 30s;
const auto greetingTimeout = 60s;
// For the service to finish what it is doing: setting up card handling, reading a card.
const auto settleTime = 1s;
const int restartClients = 10;
const auto pcscdDownTime = 1s;
const auto tapAfterReturn = 1s;
const auto restartDeadline = 20s;
// Rounds of the plain TCP writes each fan-out is set beside.
const int floorRounds = 10;
// The service speaks TLS 1.2 only. A client that offers 1.3 as well makes a key pair for it that
// is never used, on the same cores as the service: a fifth of each client's handshake.
const WssClientGroup::TlsVersion clientTls = WssClientGroup::TlsVersion::V1_2;
// Two client threads of 16 connect loops each: more than two cores can serve.
const int stormThreads = 2;
const int stormLoopsEach = 16;
const auto loopsEndTimeout = 30s;

double msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

void progress(const std::string& line)
{
    std::cerr << "tiv-benchmark: " << line << std::endl;
}

// The service's CPU time between two readings, in ms for each of `items`; none without both.
std::optional<double> cpuMsEach(std::optional<double> before, std::optional<double> after, size_t items)
{
    if (!before || !after || items == 0)
        return std::nullopt;
    return (*after - *before) * 1000.0 / static_cast<double>(items);
}

WssClientGroup::MessageHandler recordIn(TagArrivals& arrivals)
{
    return [&arrivals](int connection, const std::string& text, Clock::time_point arrival) {
        arrivals.onMessage(connection, text, arrival);
    };
}

// The daemon dies with the thread that started it, so it is started on one that outlives it.
// A blocking queued call would hand back through Qt's locks, which the thread sanitizer cannot
// see; a promise it can.
void onMainThread(const std::function<void()>& work)
{
    std::promise<void> done;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [&work, &done] {
            work();
            done.set_value();
        },
        Qt::QueuedConnection);
    done.get_future().wait();
}

} // namespace

BenchmarkRun::CancelHook::CancelHook(BenchmarkRun& run, std::function<void()> cancel) : run(run)
{
    std::lock_guard<std::mutex> lock(run.mutex);
    if (run.cancelled)
        cancel();
    at = run.cancelHooks.insert(run.cancelHooks.end(), std::move(cancel));
}

BenchmarkRun::CancelHook::~CancelHook()
{
    std::lock_guard<std::mutex> lock(run.mutex);
    run.cancelHooks.erase(at);
}

BenchmarkRun::BenchmarkRun(BenchmarkOptions options) : options(std::move(options))
{
    result.idleSeconds = this->options.idleSeconds;
    result.restartCycles = this->options.restartCycles;
    result.restartDeadlineSeconds = static_cast<int>(restartDeadline.count());
    result.stormSeconds = this->options.stormSeconds;
    result.reconnects = this->options.reconnects;
}

void BenchmarkRun::cancel()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        cancelled = true;
        result.cancelled = true;
        for (const std::function<void()>& hook : cancelHooks)
            hook();
    }
    wake.notify_all();
}

bool BenchmarkRun::pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex);
    return !wake.wait_for(lock, duration, [this] { return cancelled.load(); });
}

void BenchmarkRun::measureWithReaders(const ServiceStack& target)
{
    ReaderPresenceWatch presence;
    const CancelHook hook(*this, [&presence] { presence.cancel(); });
    if (!presence.open()) {
        result.error = "cannot watch the reader: " + presence.lastError();
        return;
    }
    if (options.idleSeconds > 0) {
        progress("idle: measuring the service's CPU time for " + std::to_string(options.idleSeconds) + " s");
        result.idleWithReaders = measureIdle(target.servicePid());
    }
    result.baselineResidentKiB = ProcessStats::residentKiB(target.servicePid());

    const std::set<int> sizes(options.clients.begin(), options.clients.end());
    for (int clients : sizes) {
        if (cancelled)
            break;
        // The one-client round is also the latency round, with the most taps.
        // A round that failed leaves the next one its own clients and a chance.
        result.rounds.push_back(runRound(target, presence, clients, clients == 1 ? options.taps : options.fanOutTaps));
    }
    if (options.reconnects > 0 && !cancelled)
        measureReconnects(target);
    if (options.stormSeconds > 0 && !cancelled)
        measureStorm(target, presence);
}

void BenchmarkRun::measureIdleWithoutReader(const ServiceStack& target)
{
    if (!pause(settleTime))
        return;
    progress("idle, no reader: measuring the service's CPU time for " + std::to_string(options.idleSeconds) + " s");
    result.idleWithoutReader = measureIdle(target.servicePid());
}

IdleResult BenchmarkRun::measureIdle(qint64 pid)
{
    IdleResult idle;
    const std::optional<double> before = ProcessStats::cpuSeconds(pid);
    const auto start = Clock::now();
    if (!pause(std::chrono::seconds(options.idleSeconds)))
        return idle;
    const std::optional<double> after = ProcessStats::cpuSeconds(pid);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    if (before && after && wall > 0)
        idle.cpuPercent = (*after - *before) / wall * 100.0;
    idle.residentKiB = ProcessStats::residentKiB(pid);
    if (!idle.cpuPercent)
        idle.error = "the service's /proc entries are gone: did it end?";
    return idle;
}

bool BenchmarkRun::connectClients(WssClientGroup& group, TagArrivals& arrivals, quint16 port, int clients,
                                  std::string* error)
{
    if (!group.connect(port, clients, std::chrono::seconds(60 + clients / 10))) {
        *error = "connecting " + std::to_string(clients) + " clients: " + group.lastError();
        return false;
    }
    if (!arrivals.waitForGreetings(greetingTimeout)) {
        *error = cancelled ? "cancelled" : "not every client was greeted";
        return false;
    }
    return true;
}

RoundResult BenchmarkRun::runRound(const ServiceStack& target, ReaderPresenceWatch& presence, int clients, int taps,
                                   std::optional<Clock::time_point> until)
{
    RoundResult round;
    round.clients = clients;
    progress(std::to_string(clients) + " client(s): connecting");

    TagArrivals arrivals(clients);
    const CancelHook hook(*this, [&arrivals] { arrivals.cancel(); });
    WssClientGroup group(recordIn(arrivals), {}, clientTls);
    const auto connectStart = Clock::now();
    const std::optional<double> cpuBeforeConnect = ProcessStats::cpuSeconds(target.servicePid());
    if (!connectClients(group, arrivals, target.port(), clients, &round.error))
        return round;
    round.connectSeconds = std::chrono::duration<double>(Clock::now() - connectStart).count();
    const std::optional<double> cpuBeforeTaps = ProcessStats::cpuSeconds(target.servicePid());
    round.cpuPerConnectionMs = cpuMsEach(cpuBeforeConnect, cpuBeforeTaps, static_cast<size_t>(clients));
    round.residentKiB = ProcessStats::residentKiB(target.servicePid()).value_or(0);

    progress(std::to_string(clients) + " client(s): "
             + (until ? "taps until the time is up" : std::to_string(taps) + " taps"));
    // Right after a removal the reader's poll cycle is at a known phase; a person's tap is not.
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> phase(0, static_cast<int>(readerPollInterval.count()) - 1);
    for (int i = 0; (until ? Clock::now() < *until : i < taps) && round.error.empty(); ++i) {
        if (!pause(std::chrono::milliseconds(phase(random))))
            break;
        const std::optional<Tap> times =
            tap(target, presence, arrivals, messageTimeout, &round.error, clients == 1);
        if (!times)
            break;
        if (!times->spread) {
            round.error = "not every client had the TAG in time";
            break;
        }
        round.detection.push_back(msBetween(times->laid, times->seen));
        round.firstClient.push_back(msBetween(times->laid, times->spread->first));
        round.lastClient.push_back(msBetween(times->laid, times->spread->last));
        round.serviceShare.push_back(msBetween(times->seen, times->spread->last));
        round.firstToLast.push_back(msBetween(times->spread->first, times->spread->last));
        if (times->plainReadMs)
            round.plainRead.push_back(*times->plainReadMs);
    }
    round.cpuPerTapMs = cpuMsEach(cpuBeforeTaps, ProcessStats::cpuSeconds(target.servicePid()), round.lastClient.size());
    if (cancelled && round.error.empty())
        round.error = "cancelled";
    group.closeAll(30s);
    if (clients > 1 && round.error.empty()) {
        round.plainTcpFloorMs = plainTcpFanOutMs(clients, floorRounds);
        round.plainTlsFloorSeconds = plainTlsHandshakesSeconds(clients);
    }
    return round;
}

void BenchmarkRun::measureReconnects(const ServiceStack& target)
{
    ReconnectResult& reconnect = result.reconnect;
    const int count = options.reconnects;
    reconnect.connections = count;
    // One connection after another, each gone once it has the greeting's first message. The
    // service's CPU time per connection; none when one failed.
    const auto oneByOne = [&](WssClientGroup& group, int connections) -> std::optional<double> {
        const CancelHook hook(*this, [&group] { group.stopCycling(); });
        const std::optional<double> before = ProcessStats::cpuSeconds(target.servicePid());
        if (!group.startCycling(target.port(), 1, connections)) {
            reconnect.error = group.lastError();
            return std::nullopt;
        }
        const bool ended = group.waitForLoops(std::chrono::seconds(60 + connections / 10));
        const int greeted = group.cycled().greeted;
        if (cancelled || !ended || greeted < connections) {
            reconnect.error = cancelled ? "cancelled"
                                        : std::to_string(greeted) + " of " + std::to_string(connections)
                                              + " connections had a message in time (" + group.lastError() + ")";
            return std::nullopt;
        }
        return cpuMsEach(before, ProcessStats::cpuSeconds(target.servicePid()), static_cast<size_t>(connections));
    };

    progress("reconnecting: " + std::to_string(count) + " connections, each with a full handshake");
    WssClientGroup full({}, {}, clientTls);
    reconnect.fullCpuMs = oneByOne(full, count);
    if (!reconnect.error.empty())
        return;
    progress("reconnecting: " + std::to_string(count) + " connections, each resuming the first one's session");
    WssClientGroup resuming({}, {}, clientTls);
    resuming.setResumeSessions(true);
    if (!oneByOne(resuming, 1))
        return;
    reconnect.resumedCpuMs = oneByOne(resuming, count);
    reconnect.resumed = resuming.cycled().resumed;
}

void BenchmarkRun::measureStorm(const ServiceStack& target, ReaderPresenceWatch& presence)
{
    StormResult& storm = result.storm;
    storm.threads = stormThreads;
    storm.loops = stormThreads * stormLoopsEach;
    progress("connect storm: " + std::to_string(storm.loops) + " connect loops for "
             + std::to_string(options.stormSeconds) + " s, and one client timing taps");
    std::vector<std::unique_ptr<WssClientGroup>> threads;
    const auto start = Clock::now();
    for (int i = 0; i < stormThreads; ++i) {
        threads.push_back(std::make_unique<WssClientGroup>(WssClientGroup::MessageHandler(),
                                                           WssClientGroup::CloseHandler(), clientTls));
        threads.back()->startCycling(target.port(), stormLoopsEach);
    }
    storm.taps = runRound(target, presence, 1, 0, start + std::chrono::seconds(options.stormSeconds));
    for (const auto& group : threads) {
        const WssClientGroup::Cycled cycled = group->stopCycling();
        storm.connections += cycled.greeted;
        storm.failed += cycled.failed;
    }
    storm.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (const auto& group : threads) {
        if (!group->waitForLoops(loopsEndTimeout))
            storm.error = "the connect loops did not end in time";
    }
}

void BenchmarkRun::measureRestarts(ServiceStack& target)
{
    TestSupport::PrivatePcscd& pcscd = target.pcscd();
    RestartResult& restarts = result.restarts;
    restarts.clients = restartClients;
    TagArrivals arrivals(restartClients);
    const CancelHook hook(*this, [&arrivals] { arrivals.cancel(); });
    WssClientGroup group(recordIn(arrivals), {}, clientTls);
    if (!connectClients(group, arrivals, target.port(), restartClients, &restarts.error))
        return;
    restarts.threadsBefore = ProcessStats::threadCount(target.servicePid());
    restarts.descriptorsBefore = ProcessStats::descriptorCount(target.servicePid());

    for (int cycle = 1; cycle <= options.restartCycles && !cancelled; ++cycle) {
        const std::string name = "pcscd restart " + std::to_string(cycle) + " of " + std::to_string(options.restartCycles);
        // pcscd dies while the service waits for cards, where it spends its time; not in the
        // middle of the previous tap.
        if (!pause(settleTime))
            break;
        onMainThread([&pcscd] { pcscd.kill(); });
        if (!pause(pcscdDownTime))
            break;
        QString failure;
        onMainThread([&pcscd, &failure] {
            if (!pcscd.restart())
                failure = pcscd.lastError();
        });
        if (!failure.isEmpty()) {
            restarts.error = "pcscd did not come back: " + failure.toStdString();
            break;
        }
        const auto back = Clock::now();
        if (!pause(tapAfterReturn))
            break;
        // A PC/SC context does not outlive its daemon.
        ReaderPresenceWatch presence;
        const CancelHook presenceHook(*this, [&presence] { presence.cancel(); });
        if (!presence.open()) {
            restarts.error = "cannot watch the reader after " + name + ": " + presence.lastError();
            break;
        }
        std::string error;
        const std::optional<Tap> times = tap(target, presence, arrivals, restartDeadline, &error);
        if (!times) {
            if (!cancelled)
                restarts.error = name + ": " + error;
            break;
        }
        RestartCycle done{msBetween(back, times->seen), std::nullopt};
        if (times->spread)
            done.tag = msBetween(back, times->spread->last);
        restarts.cycles.push_back(done);
        char figure[32];
        std::snprintf(figure, sizeof figure, "%.2f s", (done.tag ? *done.tag : 0) / 1000.0);
        progress(name + (done.tag ? ": every client had the TAG " + std::string(figure) + " after pcscd was back"
                                  : ": the TAG did not reach every client"));
    }
    // Threads that end at recovery get a moment to do so.
    if (pause(settleTime)) {
        restarts.threadsAfter = ProcessStats::threadCount(target.servicePid());
        restarts.descriptorsAfter = ProcessStats::descriptorCount(target.servicePid());
    }
    group.closeAll(30s);
}

std::optional<BenchmarkRun::Tap> BenchmarkRun::tap(const ServiceStack& target, ReaderPresenceWatch& presence,
                                                   TagArrivals& arrivals, std::chrono::milliseconds messageTimeout,
                                                   std::string* error, bool timePlainRead)
{
    const uint32_t number = 0xb0000000u + static_cast<uint32_t>(++tapCount);
    const VirtualCards::Bytes uid = {static_cast<uint8_t>(number >> 24), static_cast<uint8_t>(number >> 16),
                                     static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    char idText[9];
    std::snprintf(idText, sizeof idText, "%08x", number);
    arrivals.expect(idText);

    const std::string reader = target.pcscd().readerName(0).toStdString();
    VirtualCards::VirtualCard card(VirtualCards::CardPersonality::rfidTag(uid));
    Tap result;
    std::optional<Clock::time_point> seen;
    // Now and then vpcd never takes up a card laid soon after the previous one went, and no
    // PC/SC client sees it: that tap is the harness's, not the service's, and is laid again.
    for (int attempt = 1; attempt <= layAttempts && !seen && !cancelled; ++attempt) {
        if (attempt > 1) {
            card.takeAway();
            progress("PC/SC did not see a card laid on " + reader + "; laying it again");
        }
        result.laid = Clock::now();
        if (!card.layOn(target.pcscd().vpcdPort(0))) {
            *error = "laying a card: " + card.lastError();
            return std::nullopt;
        }
        seen = presence.waitFor(reader, true, presenceTimeout);
    }
    result.spread = arrivals.waitForAll(messageTimeout);
    // A hand stays on the reader for longer than a read: the card goes once the service has
    // let go of it, which resets it. Pulled during that reset, pcscd would report it gone
    // while still holding it as present, and miss the next card laid within its poll cycle.
    const bool released = card.waitForPowerUps(2, messageTimeout);
    // The service's read is set beside the same six calls by a client with nothing else to do.
    if (timePlainRead && seen && result.spread && released)
        result.plainReadMs = plainUidReadMs(reader);
    card.takeAway();
    const auto gone = presence.waitFor(reader, false, presenceTimeout);
    if (cancelled)
        return std::nullopt;
    if (seen && result.spread && !released) {
        *error = "the service did not let go of the card (no reset)";
        return std::nullopt;
    }
    if (!seen || !gone) {
        *error = std::string(seen ? "PC/SC did not see the card go: " : "PC/SC did not see the card: ")
                 + presence.lastError();
        return std::nullopt;
    }
    result.seen = *seen;
    return result;
}
