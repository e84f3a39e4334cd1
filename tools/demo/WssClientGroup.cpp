#include "WssClientGroup.h"

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Client = websocketpp::client<websocketpp::config::asio_tls_client>;
using TlsContext = boost::asio::ssl::context;

} // namespace

struct WssClientGroup::Impl
{
    Impl(MessageHandler message, CloseHandler close)
        : onMessage(std::move(message)), onClose(std::move(close))
    {
        endpoint.clear_access_channels(websocketpp::log::alevel::all);
        endpoint.clear_error_channels(websocketpp::log::elevel::all);
        endpoint.init_asio();
        endpoint.start_perpetual();
        // One context for all connections: they all trust the same (unverified) server.
        tls = std::make_shared<TlsContext>(TlsContext::tls_client);
        tls->set_verify_mode(boost::asio::ssl::verify_none);
        endpoint.set_tls_init_handler([this](websocketpp::connection_hdl) { return tls; });
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
        websocketpp::lib::error_code ec;
        Client::connection_ptr con = endpoint.get_connection(uri, ec);
        if (ec) {
            fail(ec.message());
            return;
        }
        con->set_open_handler([this](websocketpp::connection_hdl) { opened(); });
        con->set_fail_handler([this](websocketpp::connection_hdl hdl) {
            websocketpp::lib::error_code ignored;
            Client::connection_ptr failed = endpoint.get_con_from_hdl(hdl, ignored);
            fail(failed ? failed->get_ec().message() : std::string("connection failed"));
        });
        con->set_close_handler([this, index](websocketpp::connection_hdl hdl) { closed(index, hdl); });
        con->set_message_handler([this, index](websocketpp::connection_hdl, Client::message_ptr message) {
            const auto arrival = Clock::now();
            if (onMessage)
                onMessage(index, message->get_payload(), arrival);
        });
        {
            std::lock_guard<std::mutex> lock(mutex);
            connections[static_cast<size_t>(index)] = con;
        }
        endpoint.connect(con);
    }

    void opened()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++openNow;
            ++openedTotal;
        }
        changed.notify_all();
        startNext();
    }

    void fail(const std::string& reason)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++failedTotal;
            error = reason;
        }
        changed.notify_all();
        startNext();
    }

    void closed(int index, websocketpp::connection_hdl hdl)
    {
        websocketpp::lib::error_code ignored;
        Client::connection_ptr con = endpoint.get_con_from_hdl(hdl, ignored);
        const std::string reason = con ? con->get_ec().message() : std::string();
        {
            std::lock_guard<std::mutex> lock(mutex);
            --openNow;
        }
        changed.notify_all();
        if (onClose && !closing)
            onClose(index, reason);
    }

    const MessageHandler onMessage;
    const CloseHandler onClose;
    Client endpoint;
    std::shared_ptr<TlsContext> tls;
    std::thread ioThread;
    std::string uri;

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Client::connection_ptr> connections;
    int target = 0;
    int started = 0;
    int openNow = 0;
    int openedTotal = 0;
    int failedTotal = 0;
    std::atomic<bool> closing{false};
    std::string error;
};

WssClientGroup::WssClientGroup(MessageHandler onMessage, CloseHandler onClose)
    : d(std::make_unique<Impl>(std::move(onMessage), std::move(onClose)))
{
}

WssClientGroup::~WssClientGroup() = default;

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
        return d->openedTotal == d->target || d->failedTotal > 0;
    });
    if (d->openedTotal == d->target && d->openNow == d->target)
        return true;
    if (d->failedTotal == 0)
        d->error = std::to_string(d->openedTotal) + " of " + std::to_string(d->target) + " connections open in time";
    return false;
}

bool WssClientGroup::closeAll(std::chrono::milliseconds timeout)
{
    d->closing = true;
    boost::asio::post(d->endpoint.get_io_service(), [this] {
        std::vector<Client::connection_ptr> all;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            all = d->connections;
        }
        for (const Client::connection_ptr& con : all) {
            if (con && con->get_state() == websocketpp::session::state::open) {
                websocketpp::lib::error_code ignored;
                con->close(websocketpp::close::status::normal, "", ignored);
            }
        }
    });
    std::unique_lock<std::mutex> lock(d->mutex);
    return d->changed.wait_for(lock, timeout, [this] { return d->openNow == 0; });
}

int WssClientGroup::openCount() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->openNow;
}

std::string WssClientGroup::lastError() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->error;
}
