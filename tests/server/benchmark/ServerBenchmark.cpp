// Figures for the server thread alone: connect time, memory per client, and how long a
// broadcast takes to reach one client and a thousand. The server runs in a child process, so
// that its memory is measured without the clients'; both use CLOCK_MONOTONIC, which they share.
//
//   server_benchmark [--clients 1,100,1000] [--broadcasts 50]
//
// Last, a client that floods pings and never reads: the server's memory before and after.

#include "FreePort.h"
#include "Log.h"
#include "RawTlsClient.h"
#include "ServerThread.h"
#include "TestCertificate.h"

#include <QCoreApplication>
#include <QStringList>

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Client = websocketpp::client<websocketpp::config::asio_tls_client>;

long long nowNs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

void raiseDescriptorLimit()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    }
    return -1;
}

// The child: a ServerThread that admits every client, driven by one-line commands.
int serveCommands(FILE* commands, FILE* answers)
{
    int argc = 1;
    char name[] = "server_benchmark";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    // As the service runs by default: debug lines are made, here for no destination.
    Log::Logger::instance().setLoggingLevel(Log::LevelDebug);

    TestCertificate cert;
    const quint16 port = TestSupport::findFreePorts();
    const QString logDir = cert.dir() + QLatin1Char('/');
    ServerThread server(port, cert.certFile(), cert.keyFile(), logDir, nullptr);
    QObject::connect(&server, &ServerThread::onClientConnected, &server,
                     [&server](ConnectionContext context) { server.admitClient(context, {}); },
                     Qt::DirectConnection);
    server.start();
    if (!server.waitForInit())
        return 1;
    std::fprintf(answers, "%u\n", port);
    std::fflush(answers);

    char line[256];
    while (std::fgets(line, sizeof line, commands)) {
        if (std::strncmp(line, "rss", 3) == 0) {
            std::fprintf(answers, "%ld\n", residentKiB());
        } else if (std::strncmp(line, "heap", 4) == 0) {
            std::fprintf(answers, "%lld\n", static_cast<long long>(mallinfo2().uordblks / 1024));
        } else if (std::strncmp(line, "send ", 5) == 0) {
            const QString text = QString::fromLatin1(line + 5).trimmed();
            const long long sent = nowNs();
            server.sendToAll(text);
            std::fprintf(answers, "%lld\n", sent);
        } else {
            break;
        }
        std::fflush(answers);
    }
    server.stopServer();
    server.wait();
    return 0;
}

// The parent's clients, all on one asio thread.
class ClientGroup
{
public:
    ClientGroup()
    {
        endpoint.clear_access_channels(websocketpp::log::alevel::all);
        endpoint.clear_error_channels(websocketpp::log::elevel::all);
        endpoint.init_asio();
        endpoint.start_perpetual();
        auto tls = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_client);
        tls->set_verify_mode(boost::asio::ssl::verify_none);
        endpoint.set_tls_init_handler([tls](websocketpp::connection_hdl) { return tls; });
        endpoint.set_open_handler([this](websocketpp::connection_hdl) {
            std::lock_guard<std::mutex> lock(mutex);
            ++open;
            changed.notify_all();
        });
        endpoint.set_message_handler([this](websocketpp::connection_hdl, Client::message_ptr message) {
            const long long at = nowNs();
            std::lock_guard<std::mutex> lock(mutex);
            Arrivals& arrivals = received[message->get_payload()];
            if (arrivals.count++ == 0)
                arrivals.first = at;
            arrivals.last = at;
            // Waking the waiter for every arrival would cost more than the arrivals themselves.
            if (arrivals.count >= awaited)
                changed.notify_all();
        });
        io = std::thread([this] { endpoint.run(); });
    }
    ~ClientGroup()
    {
        endpoint.stop_perpetual();
        endpoint.stop();
        io.join();
    }

    // Connects until `total` are open; false after a minute.
    bool connectUpTo(int total, quint16 port)
    {
        const std::string uri = "wss://127.0.0.1:" + std::to_string(port);
        boost::asio::post(endpoint.get_io_service(), [this, from = connections, total, uri] {
            for (int i = from; i < total; ++i) {
                websocketpp::lib::error_code ec;
                Client::connection_ptr con = endpoint.get_connection(uri, ec);
                if (!ec)
                    endpoint.connect(con);
            }
        });
        connections = total;
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::minutes(1), [&] { return open >= total; });
    }

    struct Arrivals
    {
        int count = 0;
        long long first = 0;
        long long last = 0;
    };

    // Waits until `expected` clients have `text`; false after `timeoutMs`.
    bool waitFor(const std::string& text, int expected, Arrivals* arrivals, int timeoutMs = 30000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        awaited = expected;
        const bool all = changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                          [&] { return received[text].count >= expected; });
        if (arrivals)
            *arrivals = received[text];
        return all;
    }

private:
    Client endpoint;
    std::thread io;
    int connections = 0;
    std::mutex mutex;
    std::condition_variable changed;
    int open = 0;
    int awaited = 1;
    std::map<std::string, Arrivals> received;
};

class ServerChild
{
public:
    ServerChild()
    {
        int toChild[2], fromChild[2];
        if (pipe(toChild) != 0 || pipe(fromChild) != 0)
            std::exit(1);
        pid = fork();
        if (pid == 0) {
            ::close(toChild[1]);
            ::close(fromChild[0]);
            std::_Exit(serveCommands(fdopen(toChild[0], "r"), fdopen(fromChild[1], "w")));
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        commands = fdopen(toChild[1], "w");
        answers = fdopen(fromChild[0], "r");
        port = static_cast<quint16>(readNumber());
    }
    ~ServerChild()
    {
        std::fprintf(commands, "quit\n");
        std::fflush(commands);
        waitpid(pid, nullptr, 0);
    }

    long long ask(const std::string& command)
    {
        std::fprintf(commands, "%s\n", command.c_str());
        std::fflush(commands);
        return readNumber();
    }

    quint16 port = 0;

private:
    long long readNumber()
    {
        char line[64];
        return std::fgets(line, sizeof line, answers) ? std::atoll(line) : -1;
    }

    pid_t pid = -1;
    FILE* commands = nullptr;
    FILE* answers = nullptr;
};

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * (values.size() - 1) + 0.5))];
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<int> clientCounts{1, 100, 1000};
    int broadcasts = 50;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--clients") == 0) {
            clientCounts.clear();
            for (const QString& n : QString(argv[i + 1]).split(','))
                clientCounts.push_back(n.toInt());
        } else if (std::strcmp(argv[i], "--broadcasts") == 0) {
            broadcasts = std::atoi(argv[i + 1]);
        }
    }
    raiseDescriptorLimit();

    ServerChild server; // forked before this process has any thread
    if (server.port == 0) {
        std::fprintf(stderr, "the server did not start\n");
        return 1;
    }
    ClientGroup clients;
    const long idleKiB = server.ask("rss");
    const long long idleHeapKiB = server.ask("heap");
    std::printf("server idle: VmRSS %.1f MiB\n\n", idleKiB / 1024.0);
    std::printf("%8s %9s %10s %9s %9s %22s %22s %22s\n", "clients", "connect", "VmRSS", "per client",
                "heap/client", "send->first p50/max", "send->last p50/max", "first->last p50/max");
    int warmUps = 0;
    int connected = 0;
    for (const int count : clientCounts) {
        const long long start = nowNs();
        if (!clients.connectUpTo(count, server.port)) {
            std::fprintf(stderr, "could not connect %d clients\n", count);
            return 1;
        }
        const double connectSeconds = (nowNs() - start) / 1e9;
        const int added = count - connected;
        connected = count;
        // Admission follows the open on the server; once a broadcast reaches all, all are in.
        bool allAdmitted = false;
        while (!allAdmitted && warmUps < 1000) {
            const std::string text = "warm-up " + std::to_string(++warmUps);
            server.ask("send " + text);
            allAdmitted = clients.waitFor(text, count, nullptr, 2000);
        }
        const long rssKiB = server.ask("rss");
        const long long heapKiB = server.ask("heap");

        std::vector<double> toFirst, toLast, spread;
        for (int i = 0; i < broadcasts; ++i) {
            const std::string text = std::to_string(count) + "-" + std::to_string(i);
            const long long sent = server.ask("send " + text);
            ClientGroup::Arrivals arrivals;
            if (!clients.waitFor(text, count, &arrivals)) {
                std::fprintf(stderr, "broadcast %s did not reach every client\n", text.c_str());
                return 1;
            }
            toFirst.push_back((arrivals.first - sent) / 1e6);
            toLast.push_back((arrivals.last - sent) / 1e6);
            spread.push_back((arrivals.last - arrivals.first) / 1e6);
        }
        const double perClient = added > 0 && count > 1 ? double(rssKiB - idleKiB) / count : 0;
        std::printf("%8d %8.2fs %7.1f MiB %7.1f KiB %6.1f KiB %9.2f/%6.2f ms %9.2f/%6.2f ms %9.2f/%6.2f ms\n", count,
                    connectSeconds, rssKiB / 1024.0, perClient,
                    count > 1 ? double(heapKiB - idleHeapKiB) / count : 0.0, percentile(toFirst, 0.5),
                    percentile(toFirst, 1), percentile(toLast, 0.5), percentile(toLast, 1),
                    percentile(spread, 0.5), percentile(spread, 1));
        std::fflush(stdout);
    }

    const long beforeKiB = server.ask("rss");
    RawTlsClient flooder;
    long pings = 0;
    if (flooder.connect(server.port) && flooder.upgrade()) {
        while (pings < 5000000 && flooder.sendFrame(0x9, QByteArray(125, 'p')))
            ++pings;
    }
    const long afterKiB = server.ask("rss");
    std::printf("\nping flood without reading: dropped after %ld pings; VmRSS %.1f MiB before, %.1f MiB after\n",
                pings, beforeKiB / 1024.0, afterKiB / 1024.0);
    return 0;
}
