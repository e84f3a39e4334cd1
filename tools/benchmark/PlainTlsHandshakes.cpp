#include "PlainTlsHandshakes.h"

#include "LoopbackSockets.h"
#include "TestCertificate.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Context = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;

Context tls12Context(const SSL_METHOD* method)
{
    Context context(SSL_CTX_new(method), SSL_CTX_free);
    if (context) {
        SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
        SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
    }
    return context;
}

Context serverContext(const TestCertificate& certificate)
{
    Context context = tls12Context(TLS_server_method());
    SSL_CTX* ctx = context.get();
    if (!ctx || SSL_CTX_use_certificate_chain_file(ctx, certificate.certFile().toUtf8().constData()) != 1
        || SSL_CTX_use_PrivateKey_file(ctx, certificate.keyFile().toUtf8().constData(), SSL_FILETYPE_PEM) != 1
        || SSL_CTX_set_cipher_list(ctx, "ECDHE+AESGCM:ECDHE+CHACHA20") != 1)
        return Context(nullptr, SSL_CTX_free);
    SSL_CTX_set_mode(ctx, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET);
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

std::optional<double> plainTlsHandshakesSeconds(int connections)
{
    std::unique_ptr<TestCertificate> certificate;
    try {
        certificate = std::make_unique<TestCertificate>();
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
    const Context server = serverContext(*certificate);
    const Context client = tls12Context(TLS_client_method());
    Descriptors open;
    sockaddr_in address;
    const int listener = listenOnLoopback(open, address);
    if (!server || !client || listener < 0)
        return std::nullopt;

    const int pairs = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    std::atomic<int> accepted{0};
    std::atomic<int> connected{0};
    std::atomic<bool> failed{false};
    std::vector<std::thread> servers;
    std::vector<std::thread> clients;
    const auto start = std::chrono::steady_clock::now();
    for (int pair = 0; pair < pairs; ++pair) {
        servers.emplace_back([&] {
            while (!failed && accepted++ < connections) {
                if (!handshake(server.get(), ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), true))
                    failed = true;
            }
        });
        clients.emplace_back([&] {
            while (!failed && connected++ < connections) {
                const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
                    ::shutdown(fd, SHUT_RDWR); // the handshake then fails, and closes it
                if (!handshake(client.get(), fd, false))
                    failed = true;
            }
        });
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
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
