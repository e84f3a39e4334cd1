#include "PlainTcpFanOut.h"

#include "LatencySummary.h"
#include "LoopbackSockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A TAG message in one TLS record: header, explicit nonce, text and tag.
const size_t recordBytes = 80;

} // namespace

std::optional<double> plainTcpFanOutMs(int sockets, int rounds)
{
    Descriptors open;
    sockaddr_in address;
    const int listener = listenOnLoopback(open, address);
    if (listener < 0)
        return std::nullopt;
    const int readable = open.keep(::epoll_create1(0));
    if (readable < 0)
        return std::nullopt;

    std::vector<int> senders;
    for (int i = 0; i < sockets; ++i) {
        const int client = open.keep(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        if (client < 0)
            return std::nullopt;
        // A loopback connect completes at once, or at the latest when the accept below is done.
        ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
        const int server = open.keep(::accept(listener, nullptr, nullptr));
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.fd = client;
        if (server < 0 || ::epoll_ctl(readable, EPOLL_CTL_ADD, client, &event) != 0)
            return std::nullopt;
        const int noDelay = 1;
        ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        senders.push_back(server);
    }

    std::atomic<int> received{0};
    std::atomic<bool> done{false};
    std::atomic<Clock::rep> lastRead{0};
    std::thread reader([&] {
        epoll_event events[256];
        char buffer[256];
        while (!done) {
            const int ready = ::epoll_wait(readable, events, 256, 50);
            for (int i = 0; i < ready; ++i) {
                while (::read(events[i].data.fd, buffer, sizeof buffer) > 0) {
                }
                lastRead = Clock::now().time_since_epoch().count();
                ++received;
            }
        }
    });

    const std::vector<char> record(recordBytes, 'x');
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) {
        received = 0;
        const auto start = Clock::now();
        for (int fd : senders)
            ::send(fd, record.data(), record.size(), MSG_NOSIGNAL);
        const auto deadline = start + std::chrono::seconds(10);
        while (received < sockets && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (received < sockets)
            break;
        times.push_back(std::chrono::duration<double, std::milli>(Clock::duration(lastRead.load()) - start.time_since_epoch()).count());
    }
    done = true;
    reader.join();
    if (times.empty())
        return std::nullopt;
    return LatencySummary::of(times).p50;
}
