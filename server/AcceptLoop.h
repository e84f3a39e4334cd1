#pragma once

#include "Backoff.h"
#include "EndpointConfig.h"

#include <boost/asio/steady_timer.hpp>

#include <websocketpp/server.hpp>

#include <chrono>
#include <memory>

// Accepts the endpoint's connections. Unlike the library's own loop, which retries at once and
// logs every failure, it waits while the process is out of descriptors: one warning, then a
// retry after a growing pause or soon after a connection closes, whichever comes first.
// Server thread only.
class AcceptLoop
{
public:
    using Endpoint = websocketpp::server<EndpointConfig>;

    // Call before the endpoint listens: the acceptor is picked up as it is bound.
    AcceptLoop(Endpoint& endpoint, boost::asio::io_context& ioContext);

    void start();
    void stop();
    // A descriptor is about to be freed.
    void connectionClosed();

private:
    void acceptInto(const Endpoint::connection_ptr& connection);
    void accepted(const Endpoint::connection_ptr& connection, const boost::system::error_code& ec);
    void retryAfter(std::chrono::milliseconds delay);

    Endpoint& endpoint;
    std::shared_ptr<boost::asio::ip::tcp::acceptor> acceptor;
    boost::asio::steady_timer retryTimer;
    // The connection that found no descriptor, kept for the next attempt.
    Endpoint::connection_ptr waiting;
    Backoff descriptorWait;
    bool paused = false;
    bool stopped = false;
};
