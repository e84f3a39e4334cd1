#include "BenchmarkRun.h"

#include "CardPersonality.h"
#include "LatencySummary.h"
#include "ProcessStats.h"
#include "VirtualCard.h"
#include "WssClientGroup.h"

#include <cstdio>
#include <iomanip>
#include <iostream>
#include <random>
#include <set>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// pcscd asks the virtual reader for its card this often.
const auto readerPollInterval = 400ms;
const auto presenceTimeout = 10s;
const auto messageTimeout = 30s;

double msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

void progress(const std::string& line)
{
    std::cerr << "tiv-benchmark: " << line << std::endl;
}

std::string mib(long kib)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << static_cast<double>(kib) / 1024.0 << " MiB";
    return text.str();
}

std::string milliseconds(double value)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << value << " ms";
    return text.str();
}

} // namespace

BenchmarkRun::BenchmarkRun(BenchmarkOptions options, BenchmarkTarget target)
    : options(std::move(options)), target(std::move(target))
{
}

BenchmarkRun::~BenchmarkRun()
{
    cancel();
    wait();
}

void BenchmarkRun::cancel()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        cancelled = true;
        if (currentArrivals)
            currentArrivals->cancel();
    }
    presence.cancel();
    wake.notify_all();
}

bool BenchmarkRun::pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex);
    return !wake.wait_for(lock, duration, [this] { return cancelled.load(); });
}

void BenchmarkRun::run()
{
    result.idleSeconds = options.idleSeconds;
    if (!presence.open()) {
        result.error = "cannot watch the reader: " + presence.lastError();
        return;
    }
    measureIdle();

    std::set<int> sizes(options.clients.begin(), options.clients.end());
    for (int clients : sizes) {
        if (cancelled)
            break;
        // The one-client round is also the latency round, with the most taps.
        RoundResult round = runRound(clients, clients == 1 ? options.taps : options.fanOutTaps);
        const bool failed = !round.error.empty();
        result.rounds.push_back(std::move(round));
        if (failed)
            break;
    }
    result.cancelled = cancelled;
}

void BenchmarkRun::measureIdle()
{
    if (options.idleSeconds <= 0)
        return;
    progress("idle: measuring the service's CPU time for " + std::to_string(options.idleSeconds) + " s");
    const std::optional<double> before = ProcessStats::cpuSeconds(target.servicePid);
    const auto start = Clock::now();
    if (!pause(std::chrono::seconds(options.idleSeconds)))
        return;
    const std::optional<double> after = ProcessStats::cpuSeconds(target.servicePid);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    if (before && after && wall > 0)
        result.idleCpuPercent = (*after - *before) / wall * 100.0;
    result.idleResidentKiB = ProcessStats::residentKiB(target.servicePid);
}

RoundResult BenchmarkRun::runRound(int clients, int taps)
{
    RoundResult round;
    round.clients = clients;
    progress(std::to_string(clients) + " client(s): connecting");

    TagArrivals arrivals(clients);
    {
        std::lock_guard<std::mutex> lock(mutex);
        currentArrivals = &arrivals;
        if (cancelled)
            arrivals.cancel();
    }
    {
        WssClientGroup group([&arrivals](int connection, const std::string& text, Clock::time_point arrival) {
            arrivals.onMessage(connection, text, arrival);
        });
        const auto connectStart = Clock::now();
        if (!group.connect(target.servicePort, clients, std::chrono::seconds(60 + clients / 10))) {
            round.error = "connecting " + std::to_string(clients) + " clients: " + group.lastError();
        } else if (!arrivals.waitForGreetings(60s)) {
            round.error = cancelled ? "cancelled" : "not every client was greeted";
        } else {
            round.connectSeconds = std::chrono::duration<double>(Clock::now() - connectStart).count();
            round.residentKiB = ProcessStats::residentKiB(target.servicePid).value_or(0);
            progress(std::to_string(clients) + " client(s): " + std::to_string(taps) + " taps");
            for (int i = 0; i < taps && !cancelled && round.error.empty(); ++i) {
                const std::optional<TapTimes> times = tap(arrivals, &round.error);
                if (!times)
                    break;
                round.detection.push_back(times->detection);
                round.firstClient.push_back(times->firstClient);
                round.lastClient.push_back(times->lastClient);
                round.serviceShare.push_back(times->lastClient - times->detection);
            }
            if (cancelled && round.error.empty())
                round.error = "cancelled";
            group.closeAll(30s);
        }
    }
    std::lock_guard<std::mutex> lock(mutex);
    currentArrivals = nullptr;
    return round;
}

std::optional<BenchmarkRun::TapTimes> BenchmarkRun::tap(TagArrivals& arrivals, std::string* error)
{
    // Right after a removal the reader's poll cycle is at a known phase; a person's tap is not.
    static std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> phase(0, static_cast<int>(readerPollInterval.count()) - 1);
    if (!pause(std::chrono::milliseconds(phase(random))))
        return std::nullopt;

    const uint32_t number = 0xb0000000u + static_cast<uint32_t>(++tapCount);
    const VirtualCards::Bytes uid = {static_cast<uint8_t>(number >> 24), static_cast<uint8_t>(number >> 16),
                                     static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    char idText[9];
    std::snprintf(idText, sizeof idText, "%08x", number);
    arrivals.expect(idText);

    const std::string reader = target.readerName.toStdString();
    VirtualCards::VirtualCard card(VirtualCards::CardPersonality::rfidTag(uid));
    const auto laid = Clock::now();
    if (!card.layOn(target.vpcdPort)) {
        *error = "laying a card: " + card.lastError();
        return std::nullopt;
    }
    const auto seen = presence.waitFor(reader, true, presenceTimeout);
    const auto spread = arrivals.waitForAll(messageTimeout);
    card.takeAway();
    const auto gone = presence.waitFor(reader, false, presenceTimeout);
    if (cancelled)
        return std::nullopt;
    if (!seen || !gone) {
        *error = "PC/SC: " + presence.lastError();
        return std::nullopt;
    }
    if (!spread) {
        *error = std::string("not every client had the TAG for ") + idText + " in time";
        return std::nullopt;
    }
    return TapTimes{msBetween(laid, *seen), msBetween(laid, spread->first), msBetween(laid, spread->last)};
}

bool BenchmarkReport::complete() const
{
    if (!error.empty() || cancelled)
        return false;
    for (const RoundResult& round : rounds) {
        if (!round.error.empty())
            return false;
    }
    return true;
}

void BenchmarkReport::print(std::ostream& out) const
{
    const int labelWidth = 44;
    const auto row = [&](const std::string& label, const LatencySummary& s) {
        out << "  " << std::left << std::setw(labelWidth) << label << std::right << std::setw(11)
            << milliseconds(s.p50) << std::setw(11) << milliseconds(s.p95) << std::setw(11) << milliseconds(s.max)
            << "\n";
    };

    const RoundResult* single = nullptr;
    for (const RoundResult& round : rounds) {
        if (round.clients == 1)
            single = &round;
    }
    if (single && !single->detection.empty()) {
        out << std::left << std::setw(labelWidth + 2)
            << "Tap to message: " + std::to_string(single->detection.size()) + " taps, 1 client" << std::right
            << std::setw(11) << "p50" << std::setw(11) << "p95" << std::setw(11) << "max" << "\n";
        row("a plain PC/SC client sees the card", LatencySummary::of(single->detection));
        row("the service's client has the TAG", LatencySummary::of(single->lastClient));
        row("difference: the service's own time", LatencySummary::of(single->serviceShare));
        out << "\n";
    }

    if (idleCpuPercent || idleResidentKiB) {
        out << "Idle: " << idleSeconds << " s, both readers attached, no card, no client\n";
        if (idleCpuPercent) {
            std::ostringstream cpu;
            cpu << std::fixed << std::setprecision(2) << *idleCpuPercent << " % of one core";
            out << "  " << std::left << std::setw(labelWidth) << "CPU (utime + stime)" << cpu.str() << "\n";
        }
        if (idleResidentKiB)
            out << "  " << std::left << std::setw(labelWidth) << "resident memory (VmRSS)" << mib(*idleResidentKiB)
                << "\n";
        out << std::right << "\n";
    }

    if (!rounds.empty()) {
        out << "Fan-out: from the tap until the last client has the TAG\n"
            << std::string(36, ' ') << "tap to last client    PC/SC to last client\n"
            << "  clients  taps  connect     VmRSS        p50        max         p50        max\n";
        for (const RoundResult& round : rounds) {
            out << std::right << std::setw(9) << round.clients << std::setw(6) << round.lastClient.size();
            if (round.lastClient.empty()) {
                out << "  " << (round.error.empty() ? "no taps" : round.error) << "\n";
                continue;
            }
            const LatencySummary last = LatencySummary::of(round.lastClient);
            const LatencySummary share = LatencySummary::of(round.serviceShare);
            std::ostringstream connect;
            connect << std::fixed << std::setprecision(2) << round.connectSeconds << " s";
            out << std::setw(9) << connect.str() << std::setw(10) << mib(round.residentKiB) << std::setw(11)
                << milliseconds(last.p50) << std::setw(11) << milliseconds(last.max) << std::setw(12)
                << milliseconds(share.p50) << std::setw(11) << milliseconds(share.max) << "\n";
            if (!round.error.empty())
                out << "           stopped early: " << round.error << "\n";
        }
        out << "  (connect: until every client is greeted; VmRSS: the service's, with the clients connected)\n";
    }
    if (!error.empty())
        out << "Error: " << error << "\n";
    if (cancelled)
        out << "(cancelled: the figures above are what was measured until then)\n";
}
