#include "AcceptLoop.h"

#include "Log.h"

#include <boost/asio/error.hpp>

#include <cerrno>

namespace {

const std::chrono::milliseconds firstPause(50);
const std::chrono::milliseconds longestPause(1000);
// Long enough for the closing connection to have released its socket.
const std::chrono::milliseconds afterAClose(10);

// Lives as long as its connection: the seat it takes, and the timer that ends it unless it is
// open in time.
struct AcceptedConnection
{
    AcceptedConnection(std::shared_ptr<const char> seat, boost::asio::io_context& ioContext)
        : seat(std::move(seat))
        , deadline(ioContext, std::chrono::milliseconds(EndpointConfig::timeout_accept_to_open))
    {
    }
    std::shared_ptr<const char> seat;
    boost::asio::steady_timer deadline;
};

bool outOfDescriptors(const boost::system::error_code& ec)
{
    if (ec.category() != boost::system::system_category())
        return false;
    const int code = ec.value();
    return code == EMFILE || code == ENFILE;
}

} // namespace

AcceptLoop::AcceptLoop(Endpoint& endpoint, boost::asio::io_context& ioContext)
    : endpoint(endpoint)
    , ioContext(ioContext)
    , retryTimer(ioContext)
    , descriptorWait(firstPause, longestPause)
    , refusals(ioContext)
{
    endpoint.set_tcp_pre_bind_handler(
        [this](std::shared_ptr<boost::asio::ip::tcp::acceptor> bound) {
            acceptor = std::move(bound);
            return websocketpp::lib::error_code();
        });
}

void AcceptLoop::start()
{
    stopped = false;
    acceptInto(endpoint.get_connection());
}

void AcceptLoop::stop()
{
    stopped = true;
    retryTimer.cancel();
    refusals.stop();
    if (waiting) {
        waiting->terminate(websocketpp::lib::error_code());
        waiting.reset();
    }
}

void AcceptLoop::connectionClosed()
{
    if (paused && !stopped)
        retryAfter(afterAClose);
}

void AcceptLoop::acceptInto(const Endpoint::connection_ptr& connection)
{
    if (stopped || !acceptor || !acceptor->is_open()) {
        connection->terminate(websocketpp::lib::error_code());
        return;
    }
    acceptor->async_accept(connection->get_raw_socket(),
                           [this, connection](const boost::system::error_code& ec) {
                               accepted(connection, ec);
                           });
}

void AcceptLoop::accepted(const Endpoint::connection_ptr& connection,
                          const boost::system::error_code& ec)
{
    if (!ec) {
        if (paused) {
            paused = false;
            descriptorWait.reset();
            TLOG_INFO() << "Accepting new WebSocket connections again.";
        }
        if (connections() >= maxConnections) {
            refuse(connection);
            acceptInto(connection);
            return;
        }
        admit(connection);
        acceptInto(endpoint.get_connection());
        return;
    }
    if (ec == boost::asio::error::operation_aborted || stopped) {
        // The acceptor was closed: the server is stopping.
        connection->terminate(websocketpp::lib::error_code());
        return;
    }
    if (outOfDescriptors(ec)) {
        if (!paused) {
            paused = true;
            TLOG_WARN() << "Out of file descriptors (" << ec.message().c_str()
                        << "): new WebSocket connections wait until some are free.";
        }
        waiting = connection;
        retryAfter(descriptorWait.next());
        return;
    }
    // A client that gave up while queued, and the like: the next one is unaffected. The pause
    // keeps an error that does not go away from spinning the loop.
    TLOG_DEBUG() << "Accepting a WebSocket connection failed:" << ec.message().c_str();
    waiting = connection;
    retryAfter(firstPause);
}

void AcceptLoop::retryAfter(std::chrono::milliseconds delay)
{
    retryTimer.expires_after(delay);
    retryTimer.async_wait([this](const boost::system::error_code& ec) {
        // A wait cut short by a newer one leaves the retry to that one.
        if (ec == boost::asio::error::operation_aborted || stopped || !waiting)
            return;
        Endpoint::connection_ptr connection = std::move(waiting);
        waiting.reset();
        acceptInto(connection);
    });
}

void AcceptLoop::refuse(const Endpoint::connection_ptr& connection)
{
    // Before its TLS handshake, which is most of what a connection costs; the connection object
    // waits for the next client.
    boost::system::error_code ignored;
    connection->get_raw_socket().close(ignored);
    refusals.refused(maxConnections);
}

void AcceptLoop::admit(const Endpoint::connection_ptr& connection)
{
    auto accepted = std::make_shared<AcceptedConnection>(seat, ioContext);
    accepted->deadline.async_wait(
        [weak = std::weak_ptr<Endpoint::connection_type>(connection)](const boost::system::error_code& ec) {
            const Endpoint::connection_ptr late = weak.lock();
            if (ec || !late || late->get_state() != websocketpp::session::state::connecting)
                return;
            TLOG_DEBUG() << "Closed a connection that was not open" << EndpointConfig::timeout_accept_to_open
                         << "ms after it was accepted.";
            // Cut at the TCP level first, so that a read or write the handshake waits on ends now.
            boost::system::error_code ignored;
            late->get_raw_socket().shutdown(boost::asio::socket_base::shutdown_both, ignored);
            late->terminate(websocketpp::error::make_error_code(websocketpp::error::open_handshake_timeout));
        });
    connection->keepWhileAlive(std::move(accepted));
    // A greeting is several small messages in a row; none should wait for an ACK.
    boost::system::error_code ignored;
    connection->get_raw_socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    connection->start();
}
