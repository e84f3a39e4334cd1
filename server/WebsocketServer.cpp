#include "WebsocketServer.h"

#include "RotatingFileStream.h"
#include "Log.h"

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

namespace {

const void* connectionAddress(const websocketpp::connection_hdl& hdl)
{
    return hdl.lock().get();
}

// A client that reads keeps this close to zero; one that stops reading (or floods pings and
// never reads the pongs) passes it and is dropped, rather than holding the service's memory.
const size_t maxUnsentBytes = 1024 * 1024;

// The library's access and error logs start empty and are rotated like app.log, only larger:
// a long run of connections must not fill the disk.
std::unique_ptr<std::ostream> openLibraryLog(const QString& path)
{
    return std::make_unique<Log::RotatingFileStream>(path, 1024 * 1024, 2);
}

} // namespace

WebsocketServer::WebsocketServer(unsigned short port, const QString& certFile,
                                 const QString& keyFile, const QString& logPath,
                                 const QStringList& origins, Callbacks callbacks)
    : accessLog(openLibraryLog(logPath + QStringLiteral("access.log")))
    , errorLog(openLibraryLog(logPath + QStringLiteral("error.log")))
    , tls(certFile, keyFile)
    , ioContext(1)
    , accept(endpoint, ioContext)
    , allowedOrigins(origins)
    , callbacks(std::move(callbacks))
    , healthRequests(allowedOrigins, this->callbacks.health)
    , messages(std::make_shared<EndpointConfig::con_msg_manager_type>())
    , framer(true, true, messages, rng)
{
    using std::placeholders::_1;
    using std::placeholders::_2;

    endpoint.get_alog().set_ostream(accessLog.get());
    endpoint.get_elog().set_ostream(errorLog.get());
    endpoint.set_access_channels(websocketpp::log::alevel::access_core);

    endpoint.init_asio(&ioContext);
    endpoint.set_handshake_worker(&handshakes);

    endpoint.set_validate_handler(std::bind(&WebsocketServer::validateHandler, this, _1));
    endpoint.set_open_handler(std::bind(&WebsocketServer::openHandler, this, _1));
    endpoint.set_close_handler(std::bind(&WebsocketServer::closeHandler, this, _1));
    endpoint.set_message_handler(std::bind(&WebsocketServer::messageHandler, this, _1, _2));
    endpoint.set_ping_handler(std::bind(&WebsocketServer::pingHandler, this, _1, _2));
    endpoint.set_http_handler(std::bind(&WebsocketServer::httpHandler, this, _1));
    endpoint.set_fail_handler([this](websocketpp::connection_hdl) { accept.connectionClosed(); });
    endpoint.set_tls_init_handler([this](websocketpp::connection_hdl hdl) {
        TLOG_DEBUG() << "on_tls_init called with hdl: " << connectionAddress(hdl);
        return tls.context();
    });

    if (!allowedOrigins.isEmpty())
        TLOG_INFO() << "WebSocket connections from web pages accepted only for origins:"
                    << allowedOrigins.origins().join(QStringLiteral(", "));

    // A restart must not wait for the connections of the last run to leave TIME_WAIT.
    endpoint.set_reuse_addr(true);
    // Loopback only: the clients run on this machine, and nothing else should reach the service.
    endpoint.listen("127.0.0.1", std::to_string(port));
}

WebsocketServer::~WebsocketServer()
{
    websocketpp::lib::error_code ignored;
    if (endpoint.is_listening())
        endpoint.stop_listening(ignored);
}

void WebsocketServer::run()
{
    if (stopped)
        return;
    accept.start();
    // Only stop() ends the loop, even while nothing at all is pending.
    const auto keepRunning = boost::asio::make_work_guard(ioContext);
    while (!stopped) {
        try {
            runPosted();
            if (!stopped)
                ioContext.run_one();
        } catch (const std::exception& error) {
            // One failing handler must not end the service for every other client.
            TLOG_ERROR() << "WebSocket server:" << error.what();
        }
    }
}

void WebsocketServer::post(std::function<void()> work)
{
    {
        const std::lock_guard<std::mutex> lock(postedMutex);
        posted.push_back(std::move(work));
    }
    // Wakes run_one() when it waits for the network. The server thread itself (a greeting sent
    // from the open handler) needs no wake: the queue is drained after the running handler.
    if (!ioContext.get_executor().running_in_this_thread())
        boost::asio::post(ioContext, [] {});
}

void WebsocketServer::runPosted()
{
    // One at a time, so that work posted while this runs goes first as well, and a piece that
    // throws leaves the rest queued.
    while (!stopped) {
        std::function<void()> work;
        {
            const std::lock_guard<std::mutex> lock(postedMutex);
            if (posted.empty())
                return;
            work = std::move(posted.front());
            posted.pop_front();
        }
        work();
    }
}

void WebsocketServer::stop()
{
    stopped = true;
    accept.stop();
    websocketpp::lib::error_code ignored;
    if (endpoint.is_listening())
        endpoint.stop_listening(ignored);
    ioContext.stop();
}

void WebsocketServer::sendToAll(const QString& message)
{
    if (admitted.isEmpty())
        return;
    const Frame frame = prepareFrame(message);
    sendTo(ClientProtocol::Original, frame);
    sendTo(ClientProtocol::Version2, frame);
}

void WebsocketServer::sendToAll(const ProtocolTexts& texts)
{
    // Framed only for a protocol that has clients: most installations have none of one kind.
    const auto send = [this](ClientProtocol protocol, const QString& text) {
        if (!text.isEmpty() && !admitted.of(protocol).empty())
            sendTo(protocol, prepareFrame(text));
    };
    send(ClientProtocol::Original, texts.original);
    send(ClientProtocol::Version2, texts.version2);
}

void WebsocketServer::sendTo(ClientProtocol protocol, const Frame& frame)
{
    if (!frame.message)
        return;
    for (const websocketpp::connection_hdl& hdl : admitted.of(protocol)) {
        websocketpp::lib::error_code ec;
        if (const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec))
            deliver(connection, frame);
    }
}

void WebsocketServer::admit(const ConnectionContext& context, const QStringList& greeting)
{
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(context.hdl, ec);
    // Gone before its turn came: its close has been handled already, or never will be needed.
    if (!connection || connection->get_state() != websocketpp::session::state::open) {
        TLOG_DEBUG() << "ServerThread: client left before it was admitted.";
        return;
    }
    for (const QString& message : greeting) {
        const Frame frame = prepareFrame(message);
        if (frame.message)
            deliver(connection, frame);
    }
    admitted.add(context.hdl, context.protocol);
    admittedChanged();
}

WebsocketServer::Frame WebsocketServer::prepareFrame(const QString& message)
{
    // The payload ends at the first zero byte, like any C string handed to the library.
    const std::string payload(message.toUtf8().constData());
    const message_ptr text = messages->get_message(websocketpp::frame::opcode::text,
                                                   payload.size());
    text->append_payload(payload);
    message_ptr frame = messages->get_message();
    if (const websocketpp::lib::error_code ec = framer.prepare_data_frame(text, frame)) {
        TLOG_WARN() << "Failed to send message: " << "(" << ec.message().c_str() << ")";
        return {};
    }
    std::string wire = frame->get_header() + frame->get_payload();
    return {std::move(frame), std::move(wire)};
}

void WebsocketServer::deliver(const Endpoint::connection_ptr& connection, const Frame& frame)
{
    // Dropped already, its close still to come.
    if (connection->get_state() != websocketpp::session::state::open)
        return;
    // Nothing of the library's waits to go out before it: straight to the socket.
    if (connection->get_buffered_amount() == 0 && connection->get_socket().writeNow(frame.wire))
        return;
    if (!hasRoomFor(connection, frame.message->get_payload().size()))
        return;
    // A client may vanish at any moment, and its close is handled only later; a send in that
    // window fails, and the others must still get the message.
    if (const websocketpp::lib::error_code ec = connection->send(frame.message)) {
        TLOG_WARN() << "ServerThread: could not send to client" << connection.get() << ":"
                    << ec.message().c_str();
    }
}

bool WebsocketServer::validateHandler(websocketpp::connection_hdl hdl)
{
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec);
    if (!connection || !originAllowed(connection))
        return false;
    // Nothing is selected for any other offer: a client fails a handshake that names a
    // protocol it did not ask for.
    const std::vector<std::string>& offered = connection->get_requested_subprotocols();
    if (std::find(offered.begin(), offered.end(), version2Subprotocol) != offered.end())
        connection->select_subprotocol(version2Subprotocol, ec);
    return true;
}

bool WebsocketServer::originAllowed(const Endpoint::connection_ptr& connection)
{
    // Without this any page open in a browser on this machine could read every badge shown.
    if (allowedOrigins.isEmpty())
        return true;
    // get_origin() also knows the header name of the older protocol drafts.
    const QString origin = QString::fromStdString(connection->get_origin());
    if (allowedOrigins.allows(origin))
        return true;
    TLOG_WARN() << "Refused WebSocket connection from origin" << origin;
    connection->set_status(websocketpp::http::status_code::forbidden);
    return false;
}

void WebsocketServer::openHandler(websocketpp::connection_hdl hdl)
{
    TLOG_DEBUG() << "on_open called with hdl: " << connectionAddress(hdl);
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec);
    ConnectionContext context{hdl};
    if (connection && connection->get_subprotocol() == version2Subprotocol)
        context.protocol = ClientProtocol::Version2;
    if (callbacks.opened)
        callbacks.opened(context);
}

void WebsocketServer::closeHandler(websocketpp::connection_hdl hdl)
{
    TLOG_DEBUG() << "on_close called with hdl: " << connectionAddress(hdl);
    accept.connectionClosed();
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec);
    if (connection
        && connection->get_local_close_code() == websocketpp::close::status::message_too_big) {
        TLOG_WARN() << "Closed client" << connection.get() << ": it sent a message of more than"
                    << EndpointConfig::max_message_size << "bytes.";
    }
    const int removed = admitted.remove(hdl);
    if (removed > 0)
        admittedChanged();
    if (callbacks.closed)
        callbacks.closed(hdl, removed);
}

void WebsocketServer::admittedChanged()
{
    if (callbacks.admittedChanged)
        callbacks.admittedChanged(admitted.size());
}

void WebsocketServer::httpHandler(websocketpp::connection_hdl hdl)
{
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec);
    if (!connection)
        return;
    // Neither the fail nor the close handler hears of a connection that was answered over HTTP.
    connection->set_termination_handler([this](const Endpoint::connection_ptr&) { accept.connectionClosed(); });
    const HealthRequests::Answer answer = healthRequests.answer(connection->get_request());
    connection->set_status(answer.status);
    for (const auto& [name, value] : answer.headers)
        connection->append_header(name, value);
    connection->set_body(answer.body);
}

void WebsocketServer::messageHandler(websocketpp::connection_hdl hdl, message_ptr msg)
{
    if (callbacks.messageReceived)
        callbacks.messageReceived(hdl, msg->get_payload());
}

bool WebsocketServer::pingHandler(websocketpp::connection_hdl hdl, const std::string& payload)
{
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec);
    // The pong is queued like any message, so a client that pings and never reads piles them up.
    return connection && connection->get_state() == websocketpp::session::state::open
           && hasRoomFor(connection, payload.size());
}

bool WebsocketServer::hasRoomFor(const Endpoint::connection_ptr& connection, size_t bytes)
{
    const size_t unsent = connection->get_buffered_amount();
    if (unsent + bytes <= maxUnsentBytes)
        return true;
    TLOG_WARN() << "Dropped client" << connection.get() << ": it does not read," << unsent
                << "bytes are waiting to be sent to it.";
    // Cut at the TCP level first: the TLS goodbye would otherwise queue behind the unread data.
    boost::system::error_code ignored;
    connection->get_raw_socket().shutdown(boost::asio::socket_base::shutdown_both, ignored);
    connection->terminate(websocketpp::lib::error_code());
    return false;
}
