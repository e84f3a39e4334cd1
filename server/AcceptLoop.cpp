#include "AcceptLoop.h"

#include "Log.h"

#include <boost/asio/error.hpp>

#include <cerrno>

namespace {

const std::chrono::milliseconds firstPause(50);
const std::chrono::milliseconds longestPause(1000);
// Long enough for the closing connection to have released its socket.
const std::chrono::milliseconds afterAClose(10);

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
    , retryTimer(ioContext)
    , descriptorWait(firstPause, longestPause)
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
        // A greeting is several small messages in a row; none should wait for an ACK.
        boost::system::error_code ignored;
        connection->get_raw_socket().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
        connection->start();
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
