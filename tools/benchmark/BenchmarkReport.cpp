#include "BenchmarkReport.h"

#include "LatencySummary.h"

#include <iomanip>
#include <iostream>
#include <sstream>

namespace {

const int labelWidth = 44;

std::string fixed(double value, int decimals, const std::string& unit)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value << unit;
    return text.str();
}

std::string ms(double value)
{
    return fixed(value, 1, " ms");
}

std::string mib(long kib)
{
    return fixed(static_cast<double>(kib) / 1024.0, 1, " MiB");
}

std::string seconds(double milliseconds)
{
    return fixed(milliseconds / 1000.0, 2, " s");
}

template <typename T>
std::string beforeAfter(const std::optional<T>& before, const std::optional<T>& after)
{
    const auto text = [](const std::optional<T>& value) { return value ? std::to_string(*value) : std::string("?"); };
    return text(before) + " -> " + text(after);
}

// A label and the figures that follow it, in columns.
void line(std::ostream& out, const std::string& label, const std::vector<std::string>& figures, int width = 11)
{
    out << "  " << std::left << std::setw(labelWidth) << label << std::right;
    for (const std::string& figure : figures)
        out << std::setw(width) << figure;
    out << "\n";
}

void printTaps(std::ostream& out, const RoundResult& single)
{
    out << std::left << std::setw(labelWidth + 2)
        << "Tap to message: " + std::to_string(single.detection.size()) + " taps, 1 client" << std::right
        << std::setw(11) << "p50" << std::setw(11) << "p95" << std::setw(11) << "max" << "\n";
    const auto row = [&](const std::string& label, const std::vector<double>& values) {
        const LatencySummary s = LatencySummary::of(values);
        line(out, label, {ms(s.p50), ms(s.p95), ms(s.max)});
    };
    row("a plain PC/SC client sees the card", single.detection);
    row("the service's client has the TAG", single.lastClient);
    row("difference: the service's own time", single.serviceShare);
    if (!single.plainRead.empty())
        row("a plain PC/SC client reads the UID", single.plainRead);
    out << "\n";
}

void printIdle(std::ostream& out, int idleSeconds, const IdleResult& withReaders, const IdleResult& withoutReader)
{
    out << std::left << std::setw(labelWidth + 2)
        << "Idle: " + std::to_string(idleSeconds) + " s each, no card, no client" << std::right << std::setw(22)
        << "CPU (run time)" << std::setw(12) << "VmRSS" << "\n";
    const auto row = [&](const std::string& label, const IdleResult& idle) {
        out << "  " << std::left << std::setw(labelWidth) << label << std::right;
        if (!idle.error.empty())
            out << "  " << idle.error << "\n";
        else
            out << std::setw(22) << (idle.cpuPercent ? fixed(*idle.cpuPercent, 3, " % of a core") : "?")
                << std::setw(12) << (idle.residentKiB ? mib(*idle.residentKiB) : "?") << "\n";
    };
    row("both readers attached", withReaders);
    row("pcscd up with no reader attached", withoutReader);
    out << "\n";
}

void printFanOut(std::ostream& out, const BenchmarkReport& report)
{
    out << "Fan-out: from the tap until the last client has the TAG\n"
        << std::string(49, ' ') << "tap to last client  PC/SC to last client  first to last client\n"
        << "  clients  taps  connect     VmRSS  per client"
        << "       p50       max         p50       max         p50       max\n";
    for (const RoundResult& round : report.rounds) {
        out << std::right << std::setw(9) << round.clients << std::setw(6) << round.lastClient.size();
        if (round.lastClient.empty()) {
            out << "  " << (round.error.empty() ? "no taps" : round.error) << "\n";
            continue;
        }
        const LatencySummary last = LatencySummary::of(round.lastClient);
        const LatencySummary share = LatencySummary::of(round.serviceShare);
        const LatencySummary spread = LatencySummary::of(round.firstToLast);
        const std::optional<double> perClient = report.residentKiBPerClient(round);
        out << std::setw(9) << fixed(round.connectSeconds, 2, " s") << std::setw(10) << mib(round.residentKiB)
            << std::setw(12) << (perClient ? fixed(*perClient, 0, " KiB") : "?") << std::setw(10) << ms(last.p50)
            << std::setw(10) << ms(last.max) << std::setw(12) << ms(share.p50) << std::setw(10) << ms(share.max)
            << std::setw(12) << ms(spread.p50) << std::setw(10) << ms(spread.max) << "\n";
        if (!round.error.empty())
            out << "           stopped early: " << round.error << "\n";
    }
    out << "  (connect: until every client is open and greeted; VmRSS: the service's with the clients;\n"
           "   per client: that VmRSS less the service's VmRSS before any client, over the clients)\n";
    for (const RoundResult& round : report.rounds) {
        if (round.plainTcpFloorMs)
            out << "  floor at " << round.clients << ": " << ms(*round.plainTcpFloorMs) << " from the first to the last of "
                << round.clients << " plain TCP writes (one thread writes, another reads)\n";
        if (round.plainTlsFloorSeconds)
            out << "  floor at " << round.clients << ": " << fixed(*round.plainTlsFloorSeconds, 2, " s") << " for "
                << round.clients << " bare TLS handshakes (OpenSSL alone, a server and a client thread per core)\n";
    }
    out << "\n";

    // The clients run on the same cores, so the times above are partly theirs; this is not.
    out << "The service's CPU time (all its threads)\n"
        << "  clients  per connection (handshake, greeting)  per tap (read the card, TAG to all)\n";
    const auto cpu = [](const std::optional<double>& value) { return value ? fixed(*value, 3, " ms") : "-"; };
    for (const RoundResult& round : report.rounds) {
        out << std::right << std::setw(9) << round.clients << std::setw(38) << cpu(round.cpuPerConnectionMs)
            << std::setw(37) << cpu(round.cpuPerTapMs) << "\n";
    }
    out << "\n";
}

void printRestarts(std::ostream& out, const BenchmarkReport& report)
{
    const RestartResult& r = report.restarts;
    out << "pcscd killed and started again: " << r.cycles.size() << " of " << report.restartCycles << " cycles, "
        << r.clients << " clients;\n  a tap 1 s after pcscd is back, held until every client has the TAG (at most "
        << report.restartDeadlineSeconds << " s)\n";
    std::vector<double> seen, tag;
    std::string each;
    for (size_t i = 0; i < r.cycles.size(); ++i) {
        seen.push_back(r.cycles[i].seen);
        if (r.cycles[i].tag)
            tag.push_back(*r.cycles[i].tag);
        each += (i % 10 == 0 ? "\n    " : " ") + (r.cycles[i].tag ? seconds(*r.cycles[i].tag) : std::string("lost"));
    }
    if (!r.cycles.empty()) {
        line(out, "after pcscd's return", {"p50", "max"});
        const LatencySummary s = LatencySummary::of(seen);
        line(out, "  a plain PC/SC client sees the card", {seconds(s.p50), seconds(s.max)});
        const LatencySummary t = LatencySummary::of(tag);
        line(out, "  every client has the TAG", tag.empty() ? std::vector<std::string>{"never"}
                                                           : std::vector<std::string>{seconds(t.p50), seconds(t.max)});
        line(out, "cycles with the TAG at every client",
             {std::to_string(tag.size()) + " of " + std::to_string(r.cycles.size())}, 0);
        out << "  each cycle, TAG after pcscd's return:" << each << "\n";
    }
    line(out, "service threads, before -> after", {beforeAfter(r.threadsBefore, r.threadsAfter)}, 0);
    line(out, "service descriptors, before -> after", {beforeAfter(r.descriptorsBefore, r.descriptorsAfter)}, 0);
    if (!r.error.empty())
        out << "  stopped early: " << r.error << "\n";
    out << "\n";
}

std::optional<double> perSecond(const StormResult& storm)
{
    if (storm.seconds <= 0)
        return std::nullopt;
    return storm.connections / storm.seconds;
}

std::optional<double> ratio(const std::optional<double>& value, const std::optional<double>& floor)
{
    if (!value || !floor || *floor <= 0)
        return std::nullopt;
    return *value / *floor;
}

const RoundResult* quietRound(const std::vector<RoundResult>& rounds)
{
    for (const RoundResult& round : rounds) {
        if (round.clients == 1 && !round.serviceShare.empty())
            return &round;
    }
    return nullptr;
}

void printStorm(std::ostream& out, const BenchmarkReport& report)
{
    const StormResult& storm = report.storm;
    out << "Connect storm: " << storm.loops << " loops on " << storm.threads
        << " threads connect, upgrade, read the greeting's first message\n"
           "and close, while one more client times taps; the service's own share, PC/SC to the TAG\n";
    line(out, "", {"p50", "p95", "max"});
    const auto row = [&](const std::string& label, const std::vector<double>& values) {
        const LatencySummary s = LatencySummary::of(values);
        line(out, label + ", " + std::to_string(values.size()) + " taps", {ms(s.p50), ms(s.p95), ms(s.max)});
    };
    if (!storm.taps.serviceShare.empty())
        row("during the storm", storm.taps.serviceShare);
    // The card's own part of that, under the same storm: the read alone, by a plain client.
    if (!storm.taps.plainRead.empty())
        row("  a plain client reads the UID", storm.taps.plainRead);
    if (const RoundResult* quiet = quietRound(report.rounds))
        row("quiet, 1 client", quiet->serviceShare);
    if (const std::optional<double> rate = perSecond(storm))
        line(out, "connections served during the storm",
             {fixed(*rate, 0, " per second") + " (" + std::to_string(storm.connections) + " in "
              + fixed(storm.seconds, 1, " s") + ", " + std::to_string(storm.failed) + " failed)"},
             0);
    for (const std::string& error : {storm.taps.error, storm.error}) {
        if (!error.empty())
            out << "  stopped early: " << error << "\n";
    }
    out << "\n";
}

void printReconnects(std::ostream& out, const BenchmarkReport& report)
{
    const ReconnectResult& r = report.reconnect;
    const auto cpu = [](const std::optional<double>& value) { return value ? fixed(*value, 3, " ms") : "-"; };
    out << "Reconnecting: " << r.connections
        << " connections one after another (TLS, upgrade, the greeting's first message, close)\n";
    line(out, "", {"the service's CPU per connection"}, 34);
    line(out, "a full handshake each", {cpu(r.fullCpuMs)}, 34);
    line(out, "each resuming the session of a first one", {cpu(r.resumedCpuMs)}, 34);
    if (const std::optional<double> resumedToFull = ratio(r.resumedCpuMs, r.fullCpuMs))
        line(out, "resumed / full", {fixed(*resumedToFull, 2, "")}, 34);
    if (r.resumedCpuMs)
        out << "  resumed: " << r.resumed << " of " << r.connections
            << (r.resumed == 0 ? " (the service did not resume)" : "") << "\n";
    if (!r.error.empty())
        out << "  stopped early: " << r.error << "\n";
    out << "\n";
}

// The round with `clients` clients, else the largest one measured.
const RoundResult* roundFor(const std::vector<RoundResult>& rounds, int clients)
{
    const RoundResult* best = nullptr;
    for (const RoundResult& round : rounds) {
        if (round.lastClient.empty())
            continue;
        if (round.clients == clients)
            return &round;
        if (!best || round.clients > best->clients)
            best = &round;
    }
    return best;
}

void printGoals(std::ostream& out, const BenchmarkReport& report)
{
    out << std::left << std::setw(labelWidth + 2) << "Against the goals (upper limits)" << std::right << std::setw(16)
        << "measured" << std::setw(10) << "floor" << std::setw(8) << "ratio" << std::setw(18) << "goal" << "\n";
    const auto row = [&](const std::string& label, const std::string& measured, const std::string& goal,
                         const std::string& floor = "", const std::optional<double>& times = std::nullopt) {
        std::ostringstream text;
        text << "  " << std::left << std::setw(labelWidth) << label << std::right << std::setw(16) << measured
             << std::setw(10) << floor << std::setw(8) << (times ? fixed(*times, 2, "x") : "") << std::setw(18) << goal;
        const std::string row = text.str();
        out << row.substr(0, row.find_last_not_of(' ') + 1) << "\n";
    };
    const auto idle = [](const IdleResult& r) { return r.cpuPercent ? fixed(*r.cpuPercent, 3, " %") : "-"; };

    if (!report.storm.taps.serviceShare.empty()) {
        const LatencySummary s = LatencySummary::of(report.storm.taps.serviceShare);
        std::string floor;
        if (!report.storm.taps.plainRead.empty()) {
            const LatencySummary read = LatencySummary::of(report.storm.taps.plainRead);
            floor = fixed(read.p50, 1, "") + " / " + fixed(read.p95, 1, "");
        }
        row("own share p50 / p95, connect storm", fixed(s.p50, 1, "") + " / " + ms(s.p95), "1 / 2 ms", floor);
        if (const std::optional<double> rate = perSecond(report.storm))
            row("  connections served meanwhile", fixed(*rate, 0, " /s"), "");
    }
    if (const RoundResult* quiet = quietRound(report.rounds)) {
        // Its floor: reading the card alone, as a plain client does it, with nothing sent anywhere.
        const double share = LatencySummary::of(quiet->serviceShare).p50;
        const std::optional<double> read =
            quiet->plainRead.empty() ? std::nullopt : std::optional<double>(LatencySummary::of(quiet->plainRead).p50);
        row("own share p50, quiet (1 client)", ms(share), "0.5 ms", read ? ms(*read) : "", ratio(share, read));
    }
    if (report.idleSeconds > 0) {
        row("idle CPU, both readers attached", idle(report.idleWithReaders), "0.02 %");
        row("idle CPU, pcscd up with no reader", idle(report.idleWithoutReader), "0.02 %");
    }
    if (const RoundResult* r = roundFor(report.rounds, 1000)) {
        const double spread = LatencySummary::of(r->firstToLast).p50;
        row("fan-out first to last p50, " + std::to_string(r->clients) + " clients", ms(spread), "1.5x the floor",
            r->plainTcpFloorMs ? ms(*r->plainTcpFloorMs) : "", ratio(spread, r->plainTcpFloorMs));
        row("connect and greet " + std::to_string(r->clients) + " clients", fixed(r->connectSeconds, 2, " s"),
            "1.3x the floor", r->plainTlsFloorSeconds ? fixed(*r->plainTlsFloorSeconds, 2, " s") : "",
            ratio(r->connectSeconds, r->plainTlsFloorSeconds));
    }
    const ReconnectResult& reconnect = report.reconnect;
    if (reconnect.fullCpuMs && reconnect.resumedCpuMs)
        row("service CPU per connection, resumed / full",
            fixed(*reconnect.resumedCpuMs, 2, "") + " / " + fixed(*reconnect.fullCpuMs, 2, " ms"), "0.33x full", "",
            ratio(reconnect.resumedCpuMs, reconnect.fullCpuMs));
    if (const RoundResult* r = roundFor(report.rounds, 10000)) {
        const std::optional<double> perClient = report.residentKiBPerClient(*r);
        row("memory per client, " + std::to_string(r->clients) + " clients",
            perClient ? fixed(*perClient, 0, " KiB") : "-", "40 KiB at 10000");
    }
    if (report.restartCycles > 0) {
        int delivered = 0;
        for (const RestartCycle& cycle : report.restarts.cycles)
            delivered += cycle.tag ? 1 : 0;
        row("pcscd restarts with the TAG delivered",
            std::to_string(delivered) + " of " + std::to_string(report.restartCycles), "all");
        row("service threads over the restarts",
            beforeAfter(report.restarts.threadsBefore, report.restarts.threadsAfter), "flat");
        row("service descriptors over the restarts",
            beforeAfter(report.restarts.descriptorsBefore, report.restarts.descriptorsAfter), "flat");
    }
}

} // namespace

bool BenchmarkReport::complete() const
{
    if (!error.empty() || cancelled || !idleWithReaders.error.empty() || !idleWithoutReader.error.empty()
        || !restarts.error.empty() || !storm.error.empty() || !storm.taps.error.empty() || !reconnect.error.empty())
        return false;
    for (const RoundResult& round : rounds) {
        if (!round.error.empty())
            return false;
    }
    return true;
}

std::optional<double> BenchmarkReport::residentKiBPerClient(const RoundResult& round) const
{
    if (!baselineResidentKiB || round.clients <= 0 || round.residentKiB <= 0)
        return std::nullopt;
    return static_cast<double>(round.residentKiB - *baselineResidentKiB) / round.clients;
}

void BenchmarkReport::print(std::ostream& out) const
{
    for (const RoundResult& round : rounds) {
        if (round.clients == 1 && !round.detection.empty())
            printTaps(out, round);
    }
    if (idleSeconds > 0)
        printIdle(out, idleSeconds, idleWithReaders, idleWithoutReader);
    if (!rounds.empty())
        printFanOut(out, *this);
    if (reconnects > 0)
        printReconnects(out, *this);
    if (stormSeconds > 0)
        printStorm(out, *this);
    if (restartCycles > 0)
        printRestarts(out, *this);
    printGoals(out, *this);
    if (!error.empty())
        out << "Error: " << error << "\n";
    if (cancelled)
        out << "(cancelled: the figures above are what was measured until then)\n";
}
