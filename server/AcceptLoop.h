#pragma once

#include "Backoff.h"
#include "EndpointConfig.h"
#include "RefusalLog.h"

#include <boost/asio/steady_timer.hpp>

#include <websocketpp/server.hpp>

#include <chrono>
#include <limits>
#include <memory>

// Accepts the endpoint's connections. Unlike the library's own loop, which retries at once and
// logs every failure, it waits while the process is out of descriptors: one warning, then a
// retry after a growing pause or soon after a connection closes, whichever comes first.
// It holds the connections to a number, closing those beyond it before their TLS handshake,
// and ends each that is not open timeout_accept_to_open after it was accepted.
// Server thread only.
class AcceptLoop
{
public:
    using Endpoint = websocketpp::server<EndpointConfig>;

    // Call before the endpoint listens: the acceptor is picked up as it is bound.
    AcceptLoop(Endpoint& endpoint, boost::asio::io_context& ioContext);

    // Connections at once, open or still in their handshakes. Before start().
    void setMaxConnections(int count) { maxConnections = count; }
    void start();
    void stop();
    // A descriptor is about to be freed.
    void connectionClosed();

private:
    void acceptInto(const Endpoint::connection_ptr& connection);
    void accepted(const Endpoint::connection_ptr& connection, const boost::system::error_code& ec);
    void retryAfter(std::chrono::milliseconds delay);
    void refuse(const Endpoint::connection_ptr& connection);
    void admit(const Endpoint::connection_ptr& connection);
    int connections() const { return static_cast<int>(seat.use_count()) - 1; }

    Endpoint& endpoint;
    boost::asio::io_context& ioContext;
    std::shared_ptr<boost::asio::ip::tcp::acceptor> acceptor;
    boost::asio::steady_timer retryTimer;
    // The connection that found no descriptor, kept for the next attempt.
    Endpoint::connection_ptr waiting;
    Backoff descriptorWait;
    // Shared by every accepted connection until it is gone, so its count is theirs plus one.
    std::shared_ptr<const char> seat = std::make_shared<const char>();
    int maxConnections = std::numeric_limits<int>::max();
    RefusalLog refusals;
    bool paused = false;
    bool stopped = false;
};
