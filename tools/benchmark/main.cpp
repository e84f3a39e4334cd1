// tiv-benchmark: how fast cards reach clients, what the idle service costs, and how the
// service copes with many clients, all on a private PC/SC stack with virtual readers.

#include "BenchmarkRun.h"
#include "ServiceStack.h"
#include "UnixSignalWatcher.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>

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

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tiv-benchmark"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Measures the service on a private PC/SC daemon with virtual readers: the time from a card\n"
        "tap to the client's TAG message beside the PC/SC stack's own detection time, the idle\n"
        "service's CPU and memory, and the time until the last of many clients has a TAG."));
    parser.addHelpOption();
    const QCommandLineOption tapsOption(QStringLiteral("taps"), QStringLiteral("Taps with one client (default 50)."),
                                        QStringLiteral("n"));
    const QCommandLineOption idleOption(QStringLiteral("idle-seconds"),
                                        QStringLiteral("How long to measure the idle service (default 30; 0 skips)."),
                                        QStringLiteral("s"));
    const QCommandLineOption clientsOption(QStringLiteral("clients"),
                                           QStringLiteral("Numbers of clients for the fan-out (default 1,100,1000)."),
                                           QStringLiteral("list"));
    const QCommandLineOption fanOutTapsOption(QStringLiteral("fan-out-taps"),
                                              QStringLiteral("Taps for each number of clients but 1 (default 10)."),
                                              QStringLiteral("n"));
    const QCommandLineOption quickOption(QStringLiteral("quick"),
                                         QStringLiteral("A short run: 10 taps, 5 s idle, 1 and 100 clients, 3 taps each."));
    parser.addOptions({tapsOption, idleOption, clientsOption, fanOutTapsOption, quickOption});
    parser.process(app);

    BenchmarkOptions options;
    if (parser.isSet(quickOption))
        options = BenchmarkOptions{10, 5, {1, 100}, 3};
    bool valid = true;
    if (parser.isSet(tapsOption))
        valid = valid && parseCount(parser.value(tapsOption), 1, &options.taps);
    if (parser.isSet(idleOption))
        valid = valid && parseCount(parser.value(idleOption), 0, &options.idleSeconds);
    if (parser.isSet(fanOutTapsOption))
        valid = valid && parseCount(parser.value(fanOutTapsOption), 1, &options.fanOutTaps);
    if (parser.isSet(clientsOption)) {
        options.clients.clear();
        for (const QString& item : parser.value(clientsOption).split(QLatin1Char(','))) {
            int clients = 0;
            valid = valid && parseCount(item.trimmed(), 1, &clients);
            options.clients.push_back(clients);
        }
    }
    if (!valid) {
        std::cerr << "tiv-benchmark: counts are whole numbers (taps and clients at least 1); see --help" << std::endl;
        return 2;
    }
    // The tap-to-message latency is measured with one client in any case.
    if (std::find(options.clients.begin(), options.clients.end(), 1) == options.clients.end())
        options.clients.push_back(1);

    raiseDescriptorLimit(*std::max_element(options.clients.begin(), options.clients.end()));
    UnixSignalWatcher signalWatcher({SIGINT, SIGTERM, SIGHUP});

    std::cerr << "tiv-benchmark: starting a private PC/SC daemon with virtual readers, and the service" << std::endl;
    ServiceStack stack;
    const ServiceStack::StartResult started = stack.start(0, 60000, &UnixSignalWatcher::anyReceived);
    if (started != ServiceStack::StartResult::Started) {
        if (started != ServiceStack::StartResult::Cancelled)
            std::cerr << "tiv-benchmark: " << stack.lastError().toStdString() << std::endl;
        return 1;
    }
    const QString loadAtStart = firstLine(QStringLiteral("/proc/loadavg"));

    BenchmarkRun run(options, BenchmarkTarget{stack.servicePid(), stack.port(), stack.vpcdPort(0), stack.readerName(0)});
    QObject::connect(&signalWatcher, &UnixSignalWatcher::received, &app, [&run] { run.cancel(); });
    QObject::connect(&run, &QThread::finished, &app, &QCoreApplication::quit);
    run.start();
    if (UnixSignalWatcher::anyReceived())
        run.cancel();
    // The event loop drains the service's output while the run measures.
    app.exec();
    run.wait();
    stack.stop();

    std::cout << "\nThe service (" << TIV_BUILD_TYPE << " build) on a private pcscd with virtual readers, which it\n"
              << "polls every 400 ms; each tap comes at a random moment of that cycle.\n"
              << ::sysconf(_SC_NPROCESSORS_ONLN) << " CPUs, load average at start: "
              << loadAtStart.section(QLatin1Char(' '), 0, 2).toStdString() << "\n\n";
    run.report().print(std::cout);
    return run.report().complete() ? 0 : 1;
}
