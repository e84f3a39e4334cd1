#include "MachineFloors.h"

#include "LatencySummary.h"
#include "TestCertificate.h"
#include "TlsCredentials.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/ssl.h>

#include <winscard.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A TAG message in one TLS record: header, explicit nonce, text and tag.
const size_t recordBytes = 80;

// Descriptors closed together when the holder goes, whatever way a measurement ends.
struct Descriptors
{
    std::vector<int> fds;
    ~Descriptors() { std::for_each(fds.begin(), fds.end(), ::close); }
    int keep(int fd) // a failed call's -1 is not kept
    {
        if (fd >= 0)
            fds.push_back(fd);
        return fd;
    }
};

// A TCP socket listening on a free port of 127.0.0.1, its address in `address`; -1 on failure.
int listenOnLoopback(Descriptors& open, sockaddr_in& address)
{
    const int listener = open.keep(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::listen(listener, SOMAXCONN) != 0
        || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return listener;
}

using Context = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;

// TLS 1.2 only. The server's has the service's own settings, with its credentials on the context
// rather than put on at each handshake, and a certificate of the same kind.
Context tlsContext(const TestCertificate* serverCertificate)
{
    Context context(SSL_CTX_new(serverCertificate ? TLS_server_method() : TLS_client_method()), SSL_CTX_free);
    SSL_CTX* ctx = context.get();
    if (!ctx || !SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) || !SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION))
        return Context(nullptr, SSL_CTX_free);
    if (!serverCertificate)
        return context;
    TlsCredentials::applyServerSettings(ctx);
    if (SSL_CTX_use_certificate_chain_file(ctx, serverCertificate->certFile().toUtf8().constData()) != 1
        || SSL_CTX_use_PrivateKey_file(ctx, serverCertificate->keyFile().toUtf8().constData(), SSL_FILETYPE_PEM) != 1)
        return Context(nullptr, SSL_CTX_free);
    return context;
}

// One TLS exchange on a connected socket, which it closes: the handshake, then one short record
// from the server, so that the client's side ends only once the server's has.
bool handshake(SSL_CTX* context, int fd, bool server)
{
    Descriptors open;
    if (open.keep(fd) < 0)
        return false;
    const int noDelay = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    std::unique_ptr<SSL, void (*)(SSL*)> ssl(SSL_new(context), SSL_free);
    if (!ssl || SSL_set_fd(ssl.get(), fd) != 1)
        return false;
    char record[16] = "hello";
    if (server)
        return SSL_accept(ssl.get()) == 1 && SSL_write(ssl.get(), record, 5) == 5;
    return SSL_connect(ssl.get()) == 1 && SSL_read(ssl.get(), record, sizeof record) == 5;
}

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

std::optional<double> plainTlsHandshakesSeconds(int connections)
{
    std::unique_ptr<TestCertificate> certificate;
    try {
        certificate = std::make_unique<TestCertificate>();
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
    const Context server = tlsContext(certificate.get());
    const Context client = tlsContext(nullptr);
    Descriptors open;
    sockaddr_in address;
    const int listener = listenOnLoopback(open, address);
    if (!server || !client || listener < 0)
        return std::nullopt;

    std::atomic<int> accepted{0};
    std::atomic<int> connected{0};
    std::atomic<bool> failed{false};
    const auto serve = [&] {
        while (!failed && accepted++ < connections)
            if (!handshake(server.get(), ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), true))
                failed = true;
    };
    const auto connect = [&] {
        while (!failed && connected++ < connections) {
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
                ::shutdown(fd, SHUT_RDWR); // the handshake then fails, and closes it
            if (!handshake(client.get(), fd, false))
                failed = true;
        }
    };
    std::vector<std::thread> servers;
    std::vector<std::thread> clients;
    const auto start = Clock::now();
    for (unsigned core = 0; core < std::max(1u, std::thread::hardware_concurrency()); ++core) {
        servers.emplace_back(serve);
        clients.emplace_back(connect);
    }
    for (std::thread& thread : clients)
        thread.join();
    // After a failure a server may still wait for a client that never comes.
    if (failed)
        ::shutdown(listener, SHUT_RDWR);
    for (std::thread& thread : servers)
        thread.join();
    if (failed)
        return std::nullopt;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::optional<double> plainUidReadMs(const std::string& reader)
{
    SCARDCONTEXT context = 0;
    if (SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context) != SCARD_S_SUCCESS)
        return std::nullopt;
    const auto start = Clock::now();
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    bool read = SCardConnect(context, reader.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                             &card, &protocol) == SCARD_S_SUCCESS;
    if (read) {
        read = SCardBeginTransaction(card) == SCARD_S_SUCCESS;
        DWORD state = 0;
        DWORD cardProtocol = 0;
        unsigned char atr[MAX_ATR_SIZE];
        DWORD atrLength = sizeof atr;
        read = read && SCardStatus(card, nullptr, nullptr, &state, &cardProtocol, atr, &atrLength) == SCARD_S_SUCCESS;
        const unsigned char readUid[] = {0xFF, 0xCA, 0x00, 0x00, 0x00};
        unsigned char reply[10];
        DWORD replyLength = sizeof reply;
        const SCARD_IO_REQUEST sendPci{protocol, sizeof(SCARD_IO_REQUEST)};
        read = read && SCardTransmit(card, &sendPci, readUid, sizeof readUid, nullptr, reply, &replyLength)
                           == SCARD_S_SUCCESS;
        read = SCardEndTransaction(card, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS && read;
        read = SCardDisconnect(card, SCARD_RESET_CARD) == SCARD_S_SUCCESS && read;
    }
    const auto end = Clock::now();
    SCardReleaseContext(context);
    if (!read)
        return std::nullopt;
    return std::chrono::duration<double, std::milli>(end - start).count();
}
