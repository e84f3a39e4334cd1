// tiv-benchmark: how fast cards reach clients, what the idle service costs, how the service
// copes with many clients and with pcscd restarting, all on a private PC/SC stack with
// virtual readers.

#include "BenchmarkRun.h"
#include "ServiceStack.h"
#include "StopSignals.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QThread>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <iostream>
#include <memory>
#include <vector>

#ifndef TIV_BUILD_TYPE
#define TIV_BUILD_TYPE "unknown"
#endif

namespace {

// Sockets, pipes, log files and libraries beside the clients' sockets.
const rlim_t spareDescriptors = 512;

bool parseCount(const QString& text, int min, int* value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < min)
        return false;
    *value = number;
    return true;
}

// Each client is a socket in this process and one in the service, which inherits the limit.
void raiseDescriptorLimit(int clients)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    const rlim_t wanted = static_cast<rlim_t>(clients) + spareDescriptors;
    if (limit.rlim_cur >= wanted)
        return;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < wanted)
        std::cerr << "tiv-benchmark: the open-file limit is " << limit.rlim_max << "; " << clients
                  << " clients need about " << wanted << " (raise the hard limit, e.g. ulimit -Hn)" << std::endl;
}

QString firstLine(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromLatin1(file.readLine()).trimmed();
}

const int startTimeoutMs = 60000;
const int logTailLines = 25;

// Why taps went missing is in the service's log, which goes with the stage.
void showLogTail(const QString& tail)
{
    std::cerr << "tiv-benchmark: the service's log ends with:\n" << tail.toStdString() << std::endl;
}

// The event loop drains the service's output while `stage` measures on a thread of its own.
void runStage(const std::function<void()>& stage)
{
    std::unique_ptr<QThread> thread(QThread::create(stage));
    QEventLoop loop;
    QObject::connect(thread.get(), &QThread::finished, &loop, &QEventLoop::quit);
    thread->start();
    loop.exec();
    thread->wait();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tiv-benchmark"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Measures the service on a private PC/SC daemon with virtual readers: the time from a card\n"
        "tap to the client's TAG message beside the PC/SC stack's own detection time, the idle\n"
        "service's CPU and memory with readers and with none, the time until the first and the last\n"
        "of many clients has a TAG, the service's CPU per connection with full and resumed TLS\n"
        "handshakes, its share of a tap while connect loops storm it, and the tap after pcscd is\n"
        "killed and started again."));
    parser.addHelpOption();
    const QCommandLineOption tapsOption(QStringLiteral("taps"), QStringLiteral("Taps with one client (default 50)."),
                                        QStringLiteral("n"));
    const QCommandLineOption idleOption(
        QStringLiteral("idle-seconds"),
        QStringLiteral("How long to measure the idle service, with readers and with none (default 30; 0 skips)."),
        QStringLiteral("s"));
    const QCommandLineOption clientsOption(
        QStringLiteral("clients"), QStringLiteral("Numbers of clients for the fan-out (default 1,100,1000,10000)."),
        QStringLiteral("list"));
    const QCommandLineOption fanOutTapsOption(QStringLiteral("fan-out-taps"),
                                              QStringLiteral("Taps for each number of clients but 1 (default 10)."),
                                              QStringLiteral("n"));
    const QCommandLineOption restartOption(QStringLiteral("restart-cycles"),
                                           QStringLiteral("Times pcscd is killed and started again (default 20; 0 skips)."),
                                           QStringLiteral("n"));
    const QCommandLineOption stormOption(
        QStringLiteral("storm-seconds"),
        QStringLiteral("How long connect loops storm the service while one client times taps (default 30; 0 skips)."),
        QStringLiteral("s"));
    const QCommandLineOption reconnectsOption(
        QStringLiteral("reconnects"),
        QStringLiteral("Connections one after another, with full and with resumed TLS handshakes (default 200 each; "
                       "0 skips)."),
        QStringLiteral("n"));
    const QCommandLineOption logLevelOption(
        QStringLiteral("log-level"),
        QStringLiteral("The service's log level: 0 (trace), 1 (debug, its default, which logs every\n"
                       "connection) or 2 (info; above it the benchmark cannot tell the service is up)."),
        QStringLiteral("n"));
    const QCommandLineOption quickOption(
        QStringLiteral("quick"),
        QStringLiteral("A short run: 10 taps, 5 s idle, 1 and 100 clients, 3 taps each, 2 pcscd restarts,\n"
                       "50 reconnects, a 10 s connect storm."));
    parser.addOptions({tapsOption, idleOption, clientsOption, fanOutTapsOption, restartOption, stormOption,
                       reconnectsOption, logLevelOption, quickOption});
    parser.process(app);

    BenchmarkOptions options;
    if (parser.isSet(quickOption))
        options = BenchmarkOptions{10, 5, {1, 100}, 3, 2, 10, 50, std::nullopt};
    bool valid = true;
    if (parser.isSet(tapsOption))
        valid = valid && parseCount(parser.value(tapsOption), 1, &options.taps);
    if (parser.isSet(idleOption))
        valid = valid && parseCount(parser.value(idleOption), 0, &options.idleSeconds);
    if (parser.isSet(fanOutTapsOption))
        valid = valid && parseCount(parser.value(fanOutTapsOption), 1, &options.fanOutTaps);
    if (parser.isSet(restartOption))
        valid = valid && parseCount(parser.value(restartOption), 0, &options.restartCycles);
    if (parser.isSet(stormOption))
        valid = valid && parseCount(parser.value(stormOption), 0, &options.stormSeconds);
    if (parser.isSet(reconnectsOption))
        valid = valid && parseCount(parser.value(reconnectsOption), 0, &options.reconnects);
    if (parser.isSet(logLevelOption)) {
        int level = 0;
        valid = valid && parseCount(parser.value(logLevelOption), 0, &level) && level <= 2;
        options.logLevel = level;
    }
    if (parser.isSet(clientsOption)) {
        options.clients.clear();
        for (const QString& item : parser.value(clientsOption).split(QLatin1Char(','))) {
            int clients = 0;
            valid = valid && parseCount(item.trimmed(), 1, &clients);
            options.clients.push_back(clients);
        }
    }
    if (!valid) {
        std::cerr << "tiv-benchmark: counts are whole numbers (taps and clients at least 1, a log level 0 to 2); "
                     "see --help"
                  << std::endl;
        return 2;
    }
    // The tap-to-message latency is measured with one client in any case.
    if (std::find(options.clients.begin(), options.clients.end(), 1) == options.clients.end())
        options.clients.push_back(1);

    raiseDescriptorLimit(*std::max_element(options.clients.begin(), options.clients.end()));
    SignalForwarder forwarder;
    StopSignals::install({SIGINT, SIGTERM, SIGHUP});
    BenchmarkRun run(options);
    QObject::connect(&forwarder, &SignalForwarder::stopRequested, &app, [&run] { run.cancel(); });
    const auto cancelled = [&run] { return StopSignals::stopAsked || run.isCancelled(); };

    std::cerr << "tiv-benchmark: starting a private PC/SC daemon with virtual readers, and the service" << std::endl;
    const QString loadAtStart = firstLine(QStringLiteral("/proc/loadavg"));
    // Why taps went missing is in the service's log, which goes with the stage.
    const auto problems = [&run] {
        const BenchmarkReport& report = run.report();
        const auto& cycles = report.restarts.cycles;
        return std::count_if(report.rounds.begin(), report.rounds.end(), [](const RoundResult& r) { return !r.error.empty(); })
               + std::count_if(cycles.begin(), cycles.end(), [](const RestartCycle& c) { return !c.tag; })
               + !report.restarts.error.empty() + !report.storm.taps.error.empty() + !report.reconnect.error.empty();
    };
    // A private daemon is one per process at a time: each stage brings its own. False, with
    // the reason in `error`, when the stack did not start.
    const auto stage = [&](bool withReaders, std::string* error, const std::function<void(ServiceStack&)>& measure) {
        ServiceStack stack(withReaders);
        if (options.logLevel)
            stack.setSettings({{QStringLiteral("loglevel"), *options.logLevel}});
        const ServiceStack::StartResult started = stack.start(0, startTimeoutMs, cancelled);
        if (started != ServiceStack::StartResult::Started) {
            *error = started == ServiceStack::StartResult::Cancelled ? "cancelled" : stack.lastError().toStdString();
            return false;
        }
        const auto before = problems();
        runStage([&] { measure(stack); });
        if (problems() > before)
            showLogTail(stack.appLogTail(logTailLines));
        return true;
    };
    std::string error;
    if (!stage(true, &error, [&](ServiceStack& stack) { run.measureWithReaders(stack); })) {
        if (!cancelled())
            std::cerr << "tiv-benchmark: " << error << std::endl;
        return 1;
    }
    if (options.idleSeconds > 0 && !cancelled()) {
        std::cerr << "tiv-benchmark: a private PC/SC daemon with no reader, and the service" << std::endl;
        stage(false, &run.report().idleWithoutReader.error,
              [&](ServiceStack& stack) { run.measureIdleWithoutReader(stack); });
    }
    if (options.restartCycles > 0 && !cancelled()) {
        std::cerr << "tiv-benchmark: a private PC/SC daemon to kill and restart, and the service" << std::endl;
        stage(true, &run.report().restarts.error, [&](ServiceStack& stack) { run.measureRestarts(stack); });
    }

    std::cout << "\nThe service (" << TIV_BUILD_TYPE << " build) on a private pcscd with virtual readers, which it\n"
              << "polls every 400 ms; each tap comes at a random moment of that cycle. Log level: "
              << (options.logLevel ? std::to_string(*options.logLevel) : std::string("the service's default")) << ".\n"
              << ::sysconf(_SC_NPROCESSORS_ONLN) << " CPUs, load average at start: "
              << loadAtStart.section(QLatin1Char(' '), 0, 2).toStdString()
              << ", at the end: " << firstLine(QStringLiteral("/proc/loadavg")).section(QLatin1Char(' '), 0, 2).toStdString()
              << "\n\n";
    run.report().print(std::cout);
    return run.report().complete() ? 0 : 1;
}
