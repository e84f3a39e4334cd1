#include "TestWsClient.h"

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using Client = websocketpp::client<websocketpp::config::asio_tls_client>;
using TlsContext = boost::asio::ssl::context;

enum class State { Idle, Connecting, Open, Closed, Failed };

QByteArray certificateSha256(SSL* ssl)
{
    X509* cert = SSL_get1_peer_certificate(ssl);
    if (!cert)
        return {};
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool ok = X509_digest(cert, EVP_sha256(), digest, &length) == 1;
    X509_free(cert);
    return ok ? QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(length))
              : QByteArray();
}

} // namespace

struct TestWsClient::Impl
{
    explicit Impl(TlsVersion version) : tls(version)
    {
        using namespace std::placeholders;
        endpoint.clear_access_channels(websocketpp::log::alevel::all);
        endpoint.clear_error_channels(websocketpp::log::elevel::all);
        endpoint.init_asio();
        endpoint.start_perpetual();
        endpoint.set_tls_init_handler(std::bind(&Impl::makeTlsContext, this));
        endpoint.set_open_handler(std::bind(&Impl::onOpen, this, _1));
        endpoint.set_fail_handler(std::bind(&Impl::onEnd, this, _1, State::Failed));
        endpoint.set_close_handler(std::bind(&Impl::onEnd, this, _1, State::Closed));
        endpoint.set_message_handler(std::bind(&Impl::onMessage, this, _2));
        ioThread = std::thread([this] { endpoint.run(); });
    }

    ~Impl()
    {
        endpoint.stop_perpetual();
        endpoint.stop();
        ioThread.join();
    }

    std::shared_ptr<TlsContext> makeTlsContext()
    {
        auto context = std::make_shared<TlsContext>(TlsContext::tls_client);
        context->set_verify_mode(boost::asio::ssl::verify_none);
        SSL_CTX* ctx = context->native_handle();
        switch (tls) {
        case TlsVersion::Any:
            break;
        case TlsVersion::V1_1:
            // OpenSSL refuses to even offer TLS 1.1 at its default security level.
            SSL_CTX_set_security_level(ctx, 0);
            SSL_CTX_set_min_proto_version(ctx, TLS1_1_VERSION);
            SSL_CTX_set_max_proto_version(ctx, TLS1_1_VERSION);
            break;
        case TlsVersion::V1_2:
            SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
            SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION);
            break;
        case TlsVersion::V1_3:
            SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
            SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION);
            break;
        }
        return context;
    }

    void onOpen(websocketpp::connection_hdl hdl)
    {
        websocketpp::lib::error_code ec;
        Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ec);
        const QByteArray fingerprint = con ? certificateSha256(con->get_socket().native_handle())
                                           : QByteArray();
        const int status = con ? con->get_response_code() : 0;
        std::lock_guard<std::mutex> lock(mutex);
        peerSha256 = fingerprint;
        responseStatus = status;
        state = State::Open;
        changed.notify_all();
    }

    void onEnd(websocketpp::connection_hdl hdl, State end)
    {
        websocketpp::lib::error_code ec;
        Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ec);
        const QString reason = con ? QString::fromStdString(con->get_ec().message()) : QString();
        const int status = con ? con->get_response_code() : 0;
        std::lock_guard<std::mutex> lock(mutex);
        error = reason;
        responseStatus = status;
        state = end;
        changed.notify_all();
    }

    void onMessage(Client::message_ptr message)
    {
        const std::string& payload = message->get_payload();
        std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(QString::fromUtf8(payload.data(), static_cast<int>(payload.size())));
        changed.notify_all();
    }

    template <typename Predicate>
    bool waitFor(std::unique_lock<std::mutex>& lock, int timeoutMs, Predicate predicate)
    {
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), predicate);
    }

    // Runs f on the asio thread, where the connection's socket may be touched safely.
    void onIoThread(std::function<void(Client::connection_ptr)> f)
    {
        Client::connection_ptr con;
        {
            std::lock_guard<std::mutex> lock(mutex);
            con = connection;
        }
        if (con)
            boost::asio::post(endpoint.get_io_service(), [con, f] { f(con); });
    }

    const TlsVersion tls;
    Client endpoint;
    std::thread ioThread;

    mutable std::mutex mutex;
    std::condition_variable changed;
    State state = State::Idle;
    Client::connection_ptr connection;
    std::deque<QString> messages;
    QByteArray peerSha256;
    QString error;
    QString origin;
    int responseStatus = 0;
};

TestWsClient::TestWsClient(TlsVersion tls) : d(std::make_unique<Impl>(tls)) {}

TestWsClient::~TestWsClient() = default;

void TestWsClient::setOrigin(const QString& origin)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->origin = origin;
}

bool TestWsClient::connect(quint16 port, int timeoutMs)
{
    const std::string uri = "wss://127.0.0.1:" + std::to_string(port);
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->state != State::Idle)
            return false;
        websocketpp::lib::error_code ec;
        d->connection = d->endpoint.get_connection(uri, ec);
        if (ec) {
            d->error = QString::fromStdString(ec.message());
            d->state = State::Failed;
            return false;
        }
        if (!d->origin.isEmpty())
            d->connection->replace_header("Origin", d->origin.toStdString());
        d->state = State::Connecting;
    }
    d->onIoThread([this](Client::connection_ptr con) { d->endpoint.connect(con); });

    std::unique_lock<std::mutex> lock(d->mutex);
    d->waitFor(lock, timeoutMs, [this] { return d->state != State::Connecting; });
    return d->state == State::Open;
}

std::optional<QString> TestWsClient::nextMessage(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (!d->waitFor(lock, timeoutMs, [this] { return !d->messages.empty(); }))
        return std::nullopt;
    QString message = d->messages.front();
    d->messages.pop_front();
    return message;
}

bool TestWsClient::send(const QString& text)
{
    Client::connection_ptr con;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->state != State::Open)
            return false;
        con = d->connection;
    }
    // The library's send is thread-safe: it queues the frame and lets the asio thread write it.
    const QByteArray utf8 = text.toUtf8();
    return !con->send(std::string(utf8.constData(), static_cast<size_t>(utf8.size())),
                      websocketpp::frame::opcode::text);
}

void TestWsClient::close()
{
    d->onIoThread([](Client::connection_ptr con) {
        websocketpp::lib::error_code ignored;
        con->close(websocketpp::close::status::normal, "", ignored);
    });
}

void TestWsClient::drop()
{
    d->onIoThread([](Client::connection_ptr con) {
        boost::system::error_code ignored;
        con->get_raw_socket().shutdown(boost::asio::socket_base::shutdown_both, ignored);
    });
}

bool TestWsClient::waitClosed(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->waitFor(lock, timeoutMs, [this] {
        return d->state == State::Closed || d->state == State::Failed;
    });
}

QByteArray TestWsClient::peerCertificateSha256() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->peerSha256;
}

int TestWsClient::httpStatus() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->responseStatus;
}

QString TestWsClient::lastError() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->error;
}
