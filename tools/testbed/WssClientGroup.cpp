#include "WssClientGroup.h"

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Client = websocketpp::client<websocketpp::config::asio_tls_client>;
using TlsContext = boost::asio::ssl::context;
using TlsSocket = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

std::string certificateSha256(SSL* ssl)
{
    X509* cert = SSL_get1_peer_certificate(ssl);
    if (!cert)
        return {};
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool ok = X509_digest(cert, EVP_sha256(), digest, &length) == 1;
    X509_free(cert);
    return ok ? std::string(reinterpret_cast<const char*>(digest), length) : std::string();
}

// One context for all connections: they all trust the same (unverified) server.
std::shared_ptr<TlsContext> makeTlsContext(WssClientGroup::TlsVersion version)
{
    auto context = std::make_shared<TlsContext>(TlsContext::tls_client);
    context->set_verify_mode(boost::asio::ssl::verify_none);
    SSL_CTX* ctx = context->native_handle();
    const int versions[] = {0, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION};
    const int only = versions[static_cast<int>(version)];
    if (only == TLS1_1_VERSION)
        SSL_CTX_set_security_level(ctx, 0); // OpenSSL refuses to even offer TLS 1.1 otherwise
    if (only != 0) {
        SSL_CTX_set_min_proto_version(ctx, only);
        SSL_CTX_set_max_proto_version(ctx, only);
    }
    return context;
}

struct Connection
{
    Client::connection_ptr con;
    int status = 0;
    std::string peerSha256;
    std::string subprotocol;
    bool hadMessage = false;
};

} // namespace

struct WssClientGroup::Impl
{
    Impl(MessageHandler message, CloseHandler close, TlsVersion version)
        : onMessage(std::move(message)), onClose(std::move(close)), tls(makeTlsContext(version))
    {
        endpoint.clear_access_channels(websocketpp::log::alevel::all);
        endpoint.clear_error_channels(websocketpp::log::elevel::all);
        endpoint.init_asio();
        endpoint.start_perpetual();
        endpoint.set_tls_init_handler([this](websocketpp::connection_hdl) { return tls; });
        endpoint.set_socket_init_handler([this](websocketpp::connection_hdl, TlsSocket& socket) {
            if (resume && session)
                SSL_set_session(socket.native_handle(), session.get());
        });
        // As a browser does: without it a resumed handshake's last flight and the upgrade
        // request that follows it wait for a delayed ACK, 40 ms a connection.
        endpoint.set_tcp_pre_init_handler([this](websocketpp::connection_hdl hdl) {
            websocketpp::lib::error_code ec;
            if (Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ec)) {
                boost::system::error_code ignored;
                con->get_raw_socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
            }
        });
        ioThread = std::thread([this] { endpoint.run(); });
    }

    ~Impl()
    {
        endpoint.stop_perpetual();
        endpoint.stop();
        ioThread.join();
    }

    // Runs on the io thread only, like every handler below.
    void startNext()
    {
        int index = -1;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (started >= target)
                return;
            index = started++;
        }
        if (!open(index))
            startNext();
    }

    // Loop `index` of a cycling group goes on with a new connection, or ends.
    void nextInLoop(int index)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!cycling || (cycleTotal > 0 && cycleStarted >= cycleTotal)) {
                --loopsRunning;
                changed.notify_all();
                return;
            }
            ++cycleStarted;
            connections[static_cast<size_t>(index)].hadMessage = false;
        }
        if (!open(index)) {
            std::lock_guard<std::mutex> lock(mutex);
            --loopsRunning;
            changed.notify_all();
        }
    }

    // False when the connection could not even be made; it is marked as ended then.
    bool open(int index)
    {
        websocketpp::lib::error_code ec;
        Client::connection_ptr con = endpoint.get_connection(uri, ec);
        if (ec) {
            markEnded(index, 0, ec.message(), false);
            return false;
        }
        if (!origin.empty())
            con->replace_header("Origin", origin);
        for (const std::string& name : subprotocols)
            con->add_subprotocol(name, ec);
        con->set_open_handler([this, index](websocketpp::connection_hdl hdl) { opened(index, hdl); });
        con->set_fail_handler([this, index](websocketpp::connection_hdl hdl) { ended(index, hdl, true); });
        con->set_close_handler([this, index](websocketpp::connection_hdl hdl) { ended(index, hdl, false); });
        con->set_message_handler([this, index](websocketpp::connection_hdl hdl, Client::message_ptr message) {
            const auto arrival = Clock::now();
            if (onMessage)
                onMessage(index, message->get_payload(), arrival);
            if (cycles)
                firstMessage(index, hdl);
        });
        {
            std::lock_guard<std::mutex> lock(mutex);
            connections[static_cast<size_t>(index)].con = con;
        }
        endpoint.connect(con);
        return true;
    }

    // A cycling connection has done its part with its first message.
    void firstMessage(int index, websocketpp::connection_hdl hdl)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            Connection& c = connections[static_cast<size_t>(index)];
            if (c.hadMessage)
                return;
            c.hadMessage = true;
            ++cycled.greeted;
        }
        websocketpp::lib::error_code ignored;
        Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ignored);
        if (con)
            con->close(websocketpp::close::status::normal, "", ignored);
    }

    void opened(int index, websocketpp::connection_hdl hdl)
    {
        websocketpp::lib::error_code ignored;
        Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ignored);
        SSL* ssl = con ? con->get_socket().native_handle() : nullptr;
        const std::string fingerprint = ssl ? certificateSha256(ssl) : std::string();
        // A copy: OpenSSL marks a session unfit to resume once its connection ends without a
        // TLS goodbye.
        if (resume && !session && ssl && SSL_get_session(ssl))
            session.reset(SSL_SESSION_dup(SSL_get_session(ssl)));
        {
            std::lock_guard<std::mutex> lock(mutex);
            Connection& c = connections[static_cast<size_t>(index)];
            c.status = con ? con->get_response_code() : 0;
            c.peerSha256 = fingerprint;
            // Read off the answer: the library's client does not record the server's choice.
            c.subprotocol = con ? con->get_response_header("Sec-WebSocket-Protocol") : std::string();
            ++openNow;
            ++openedTotal;
            if (ssl && SSL_session_reused(ssl))
                ++cycled.resumed;
        }
        changed.notify_all();
        startNext();
    }

    // A failed connection was never open; a closed one was.
    void ended(int index, websocketpp::connection_hdl hdl, bool neverOpen)
    {
        websocketpp::lib::error_code ignored;
        Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ignored);
        const std::string reason = con ? con->get_ec().message() : std::string();
        const int status = con ? con->get_response_code() : 0;
        if (retryPause.count() > 0 && !closing) {
            if (!neverOpen) {
                std::lock_guard<std::mutex> lock(mutex);
                --openNow;
            }
            retryLater(index);
            return;
        }
        markEnded(index, status, reason, !neverOpen);
        if (cycles) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (!connections[static_cast<size_t>(index)].hadMessage)
                    ++cycled.failed;
            }
            nextInLoop(index);
        } else if (neverOpen)
            startNext();
        else if (onClose && !closing)
            onClose(index, reason);
    }

    void retryLater(int index)
    {
        ++retries;
        auto timer = std::make_shared<boost::asio::steady_timer>(endpoint.get_io_service(), retryPause);
        timer->async_wait([this, index, timer](const boost::system::error_code& ec) {
            if (!ec && !closing && !open(index))
                startNext();
        });
    }

    void markEnded(int index, int status, const std::string& reason, bool wasOpen)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            Connection& c = connections[static_cast<size_t>(index)];
            c.status = status;
            error = reason;
            if (wasOpen)
                --openNow;
            else
                ++failedTotal;
        }
        changed.notify_all();
    }

    // Runs f on the asio thread, where a connection's socket may be touched safely.
    void onIoThread(int index, std::function<void(Client::connection_ptr)> f)
    {
        Client::connection_ptr con = connectionAt(index);
        if (con)
            boost::asio::post(endpoint.get_io_service(), [con, f] { f(con); });
    }

    Client::connection_ptr connectionAt(int index)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return index >= 0 && index < started ? connections[static_cast<size_t>(index)].con : nullptr;
    }

    const MessageHandler onMessage;
    const CloseHandler onClose;
    const std::shared_ptr<TlsContext> tls;
    Client endpoint;
    std::thread ioThread;
    std::string uri;
    std::string origin;
    std::vector<std::string> subprotocols;
    std::chrono::milliseconds retryPause{0};

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Connection> connections;
    int target = 0;
    int started = 0;
    int openNow = 0;
    int openedTotal = 0;
    int failedTotal = 0;
    std::atomic<bool> closing{false};
    std::atomic<int> retries{0};
    std::string error;

    // Cycling, instead of connect(): slot i is loop i, and each of its connections starts when
    // the one before it has ended.
    std::atomic<bool> cycles{false}; // set once, before the first loop starts
    bool cycling = false;
    int cycleTotal = 0; // 0: no limit
    int cycleStarted = 0;
    int loopsRunning = 0;
    Cycled cycled;
    // Touched on the io thread only, once resume is set.
    bool resume = false;
    std::unique_ptr<SSL_SESSION, void (*)(SSL_SESSION*)> session{nullptr, SSL_SESSION_free};
};

WssClientGroup::WssClientGroup(MessageHandler onMessage, CloseHandler onClose, TlsVersion tls)
    : d(std::make_unique<Impl>(std::move(onMessage), std::move(onClose), tls))
{
}

WssClientGroup::~WssClientGroup() = default;

void WssClientGroup::setOrigin(const std::string& origin)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->origin = origin;
}

void WssClientGroup::setSubprotocols(const std::vector<std::string>& names)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->subprotocols = names;
}

void WssClientGroup::setRetry(std::chrono::milliseconds pause)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->retryPause = pause;
}

bool WssClientGroup::connect(uint16_t port, int count, std::chrono::milliseconds timeout, int inFlight)
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->target != 0 || count < 1) {
            d->error = "connect() takes a positive count, once per group";
            return false;
        }
        d->uri = "wss://127.0.0.1:" + std::to_string(port);
        d->target = count;
        d->connections.resize(static_cast<size_t>(count));
    }
    boost::asio::post(d->endpoint.get_io_service(), [this, count, inFlight] {
        for (int i = 0; i < std::min(count, std::max(inFlight, 1)); ++i)
            d->startNext();
    });

    std::unique_lock<std::mutex> lock(d->mutex);
    d->changed.wait_for(lock, timeout, [this] {
        return (d->retryPause.count() > 0 ? d->openNow : d->openedTotal) == d->target || d->failedTotal > 0;
    });
    // Retried, a connection the server closed after it opened is counted open again.
    if (d->openNow == d->target && (d->retryPause.count() > 0 || d->openedTotal == d->target))
        return true;
    if (d->failedTotal == 0)
        d->error = std::to_string(d->openedTotal) + " of " + std::to_string(d->target) + " connections open in time";
    return false;
}

void WssClientGroup::setResumeSessions(bool resume)
{
    boost::asio::post(d->endpoint.get_io_service(), [this, resume] {
        d->resume = resume;
        d->session.reset();
    });
}

bool WssClientGroup::startCycling(uint16_t port, int loops, int total)
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (loops < 1 || d->loopsRunning > 0 || (d->target != 0 && !d->cycles)) {
            d->error = "startCycling() takes a positive count of loops, on a group that is not connected or cycling";
            return false;
        }
        d->cycles = true;
        d->uri = "wss://127.0.0.1:" + std::to_string(port);
        d->connections.resize(std::max(d->connections.size(), static_cast<size_t>(loops)));
        d->target = d->started = static_cast<int>(d->connections.size());
        d->cycling = true;
        d->cycleTotal = total;
        d->cycleStarted = 0;
        d->loopsRunning = loops;
        d->cycled = Cycled{};
    }
    boost::asio::post(d->endpoint.get_io_service(), [this, loops] {
        for (int i = 0; i < loops; ++i)
            d->nextInLoop(i);
    });
    return true;
}

WssClientGroup::Cycled WssClientGroup::stopCycling()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->cycling = false;
    return d->cycled;
}

bool WssClientGroup::waitForLoops(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->changed.wait_for(lock, timeout, [this] { return d->loopsRunning == 0; });
}

WssClientGroup::Cycled WssClientGroup::cycled() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->cycled;
}

bool WssClientGroup::send(int connection, const std::string& text)
{
    Client::connection_ptr con = d->connectionAt(connection);
    // The library's send is thread-safe: it queues the frame and lets the asio thread write it,
    // and refuses it on a connection that is not open.
    return con && !con->send(text, websocketpp::frame::opcode::text);
}

void WssClientGroup::close(int connection)
{
    d->onIoThread(connection, [](Client::connection_ptr con) {
        websocketpp::lib::error_code ignored;
        if (con->get_state() == websocketpp::session::state::open)
            con->close(websocketpp::close::status::normal, "", ignored);
    });
}

void WssClientGroup::drop(int connection)
{
    d->onIoThread(connection, [](Client::connection_ptr con) {
        boost::system::error_code ignored;
        con->get_raw_socket().shutdown(boost::asio::socket_base::shutdown_both, ignored);
    });
}

bool WssClientGroup::closeAll(std::chrono::milliseconds timeout)
{
    d->closing = true;
    for (int i = 0; i < static_cast<int>(d->connections.size()); ++i)
        close(i);
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->changed.wait_for(lock, timeout, [this] { return d->openNow == 0; });
}

int WssClientGroup::httpStatus(int connection) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return connection < d->started ? d->connections[static_cast<size_t>(connection)].status : 0;
}

std::string WssClientGroup::peerCertificateSha256(int connection) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return connection < d->started ? d->connections[static_cast<size_t>(connection)].peerSha256 : std::string();
}

std::string WssClientGroup::subprotocol(int connection) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return connection < d->started ? d->connections[static_cast<size_t>(connection)].subprotocol : std::string();
}

int WssClientGroup::retries() const
{
    return d->retries;
}

std::string WssClientGroup::lastError() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->error;
}
