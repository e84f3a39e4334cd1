#include "WebsocketServer.h"

#include "LibraryLogStream.h"
#include "Log.h"

#include <exception>
#include <string>

namespace {

const void* connectionAddress(const websocketpp::connection_hdl& hdl)
{
    return hdl.lock().get();
}

} // namespace

WebsocketServer::WebsocketServer(unsigned short port, const QString& certFile,
                                 const QString& keyFile, const QString& logPath,
                                 const QStringList& origins, Callbacks callbacks)
    : accessLog(openLibraryLogStream(logPath + QStringLiteral("access.log")))
    , errorLog(openLibraryLogStream(logPath + QStringLiteral("error.log")))
    , tls(certFile, keyFile)
    , strand(ioContext)
    , allowedOrigins(origins)
    , callbacks(std::move(callbacks))
    , messages(std::make_shared<EndpointConfig::con_msg_manager_type>())
    , framer(true, true, messages, rng)
{
    using std::placeholders::_1;
    using std::placeholders::_2;

    endpoint.get_alog().set_ostream(accessLog.get());
    endpoint.get_elog().set_ostream(errorLog.get());
    endpoint.set_access_channels(websocketpp::log::alevel::access_core);

    endpoint.init_asio(&ioContext);

    endpoint.set_validate_handler(std::bind(&WebsocketServer::validateHandler, this, _1));
    endpoint.set_open_handler(std::bind(&WebsocketServer::openHandler, this, _1));
    endpoint.set_close_handler(std::bind(&WebsocketServer::closeHandler, this, _1));
    endpoint.set_message_handler(std::bind(&WebsocketServer::messageHandler, this, _1, _2));
    endpoint.set_tls_init_handler([this](websocketpp::connection_hdl hdl) {
        TLOG_DEBUG() << "on_tls_init called with hdl: " << connectionAddress(hdl);
        return tls.context();
    });

    if (!allowedOrigins.isEmpty())
        TLOG_INFO() << "WebSocket connections from web pages accepted only for origins:"
                    << allowedOrigins.origins().join(QStringLiteral(", "));

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
    endpoint.start_accept();
    // Only stop() ends the loop, even while nothing at all is pending.
    const auto keepRunning = boost::asio::make_work_guard(ioContext);
    while (!stopped) {
        try {
            ioContext.run();
        } catch (const std::exception& error) {
            // One failing handler must not end the service for every other client.
            TLOG_ERROR() << "WebSocket server:" << error.what();
        }
    }
}

void WebsocketServer::stop()
{
    stopped = true;
    websocketpp::lib::error_code ignored;
    if (endpoint.is_listening())
        endpoint.stop_listening(ignored);
    ioContext.stop();
}

void WebsocketServer::sendToAll(const QString& message)
{
    if (admitted.isEmpty())
        return;
    const message_ptr frame = prepareFrame(message);
    if (!frame)
        return;
    for (const websocketpp::connection_hdl& hdl : admitted.all()) {
        websocketpp::lib::error_code ec;
        if (const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec))
            deliver(connection, frame);
    }
}

void WebsocketServer::sendToClient(const QString& message, const ConnectionContext& context)
{
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(context.hdl, ec);
    if (!connection) {
        TLOG_WARN() << "ServerThread: could not send to client (connection gone):"
                    << ec.message().c_str();
        return;
    }
    if (const message_ptr frame = prepareFrame(message))
        deliver(connection, frame);
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
        if (const message_ptr frame = prepareFrame(message))
            deliver(connection, frame);
    }
    admitted.add(context.hdl);
}

WebsocketServer::message_ptr WebsocketServer::prepareFrame(const QString& message)
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
    return frame;
}

void WebsocketServer::deliver(const Endpoint::connection_ptr& connection, const message_ptr& frame)
{
    // A client may vanish at any moment, and its close is handled only later; a send in that
    // window fails, and the others must still get the message.
    if (const websocketpp::lib::error_code ec = connection->send(frame)) {
        TLOG_WARN() << "ServerThread: could not send to client" << connection.get() << ":"
                    << ec.message().c_str();
    }
}

bool WebsocketServer::validateHandler(websocketpp::connection_hdl hdl)
{
    // Without this any page open in a browser on this machine could read every badge shown.
    if (allowedOrigins.isEmpty())
        return true;
    websocketpp::lib::error_code ec;
    const Endpoint::connection_ptr connection = endpoint.get_con_from_hdl(hdl, ec);
    if (!connection)
        return false;
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
    if (callbacks.opened)
        callbacks.opened(ConnectionContext{hdl});
}

void WebsocketServer::closeHandler(websocketpp::connection_hdl hdl)
{
    TLOG_DEBUG() << "on_close called with hdl: " << connectionAddress(hdl);
    const int removed = admitted.remove(hdl);
    if (callbacks.closed)
        callbacks.closed(removed);
}

void WebsocketServer::messageHandler(websocketpp::connection_hdl, message_ptr msg)
{
    if (callbacks.messageReceived)
        callbacks.messageReceived(msg->get_payload());
}
