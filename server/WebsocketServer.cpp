#include "WebsocketServer.h"

#include "Log.h"

#include <QStringList>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <functional>
#include <string>

namespace {

// Queued signals and invokeMethod() calls carry contexts across threads, so the type must be
// known by name before any of them happens.
[[maybe_unused]] const int connectionContextTypeId =
    qRegisterMetaType<ConnectionContext>("ConnectionContext");

const void* connectionAddress(const websocketpp::connection_hdl& hdl)
{
    return hdl.lock().get();
}

std::unique_ptr<std::ofstream> openTruncated(const QString& path)
{
    // A stream that failed to open is kept all the same: the library then logs nothing.
    return std::make_unique<std::ofstream>(path.toUtf8().toStdString(),
                                           std::ios::out | std::ios::trunc);
}

} // namespace

WebsocketServer::WebsocketServer(unsigned short port, const QString& certfile,
                                 const QString& keyfile, const QString& logpath, QObject* parent)
    : QObject(parent)
    , certFile(certfile)
    , keyFile(keyfile)
    , logPath(logpath)
{
    using std::placeholders::_1;
    using std::placeholders::_2;

    accessLog = openTruncated(logPath + QStringLiteral("access.log"));
    endpoint.get_alog().set_ostream(accessLog.get());
    errorLog = openTruncated(logPath + QStringLiteral("error.log"));
    endpoint.get_elog().set_ostream(errorLog.get());

    endpoint.init_asio();

    endpoint.set_validate_handler(std::bind(&WebsocketServer::validateHandler, this, _1));
    endpoint.set_open_handler(std::bind(&WebsocketServer::openHandler, this, _1));
    endpoint.set_close_handler(std::bind(&WebsocketServer::closeHandler, this, _1));
    endpoint.set_message_handler(std::bind(&WebsocketServer::messageHandler, this, _1, _2));
    endpoint.set_tls_init_handler(std::bind(&WebsocketServer::tlsInitHandler, this, _1));

    // Loopback only: the clients run on this machine, and nothing else should reach the service.
    endpoint.listen("127.0.0.1", std::to_string(port));
}

WebsocketServer::~WebsocketServer()
{
    if (endpoint.is_listening()) {
        websocketpp::lib::error_code ignored;
        endpoint.stop_listening(ignored);
    }
}

void WebsocketServer::setAllowedOrigins(const QStringList& origins)
{
    allowedOrigins = OriginAllowList(origins);
    if (!allowedOrigins.isEmpty())
        TLOG_INFO() << "WebSocket connections from web pages accepted only for origins:"
                    << allowedOrigins.origins().join(QStringLiteral(", "));
}

void WebsocketServer::start()
{
    endpoint.start_accept();
}

void WebsocketServer::poll()
{
    endpoint.poll();
}

void WebsocketServer::stop()
{
    if (endpoint.is_listening())
        endpoint.stop_listening();
    endpoint.stop();
}

void WebsocketServer::sendTextMessage(ConnectionContext context, QString message)
{
    // The payload ends at the first zero byte, like any C string handed to the library.
    const std::string payload(message.toUtf8().constData());
    try {
        endpoint.send(context.hdl, payload, websocketpp::frame::opcode::text);
    } catch (const websocketpp::lib::error_code& error) {
        TLOG_WARN() << "Failed to send message: " << "(" << error.message().c_str() << ")";
    }
    // websocketpp::exception (client gone, connection not open) is left to the caller,
    // which knows which client it was sending to.
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
    emit onConnect(ConnectionContext{hdl});
}

void WebsocketServer::closeHandler(websocketpp::connection_hdl hdl)
{
    TLOG_DEBUG() << "on_close called with hdl: " << connectionAddress(hdl);
    emit onDisconnect(ConnectionContext{hdl});
}

void WebsocketServer::messageHandler(websocketpp::connection_hdl hdl, message_ptr msg)
{
    const std::string& payload = msg->get_payload();
    TLOG_DEBUG() << "on_message called with hdl: " << connectionAddress(hdl) << " and message: "
                 << payload.c_str();
    emit onMessage(ConnectionContext{hdl}, QString::fromUtf8(payload.c_str()));
}

WebsocketServer::TlsContextPtr WebsocketServer::tlsInitHandler(websocketpp::connection_hdl hdl)
{
    namespace ssl = boost::asio::ssl;
    TLOG_DEBUG() << "on_tls_init called with hdl: " << connectionAddress(hdl);

    TlsContextPtr context;
    try {
        context = std::make_shared<ssl::context>(ssl::context::tlsv12);
        context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2
                             | ssl::context::no_sslv3 | ssl::context::single_dh_use);
    } catch (const std::exception& error) {
        TLOG_ERROR() << error.what();
        return context;
    }
    // The library prepares each connection before the client arrives, so reading the files
    // here would hand a replaced certificate only to the connection after next. Reading them
    // when the handshake starts gives it to the very next client, without a restart.
    SSL_CTX_set_cert_cb(context->native_handle(), &WebsocketServer::loadCredentials, this);
    return context;
}

int WebsocketServer::loadCredentials(SSL* ssl, void* self)
{
    const auto* server = static_cast<const WebsocketServer*>(self);
    const QByteArray cert = server->certFile.toUtf8();
    const QByteArray key = server->keyFile.toUtf8();
    ERR_clear_error();
    if (SSL_use_certificate_chain_file(ssl, cert.constData()) == 1
        && SSL_use_PrivateKey_file(ssl, key.constData(), SSL_FILETYPE_PEM) == 1
        && SSL_check_private_key(ssl) == 1)
        return 1;

    // Only this client's handshake fails; the endpoint keeps serving the others.
    QStringList reasons;
    char text[256];
    while (const unsigned long code = ERR_get_error()) {
        ERR_error_string_n(code, text, sizeof text);
        reasons << QString::fromLatin1(text);
    }
    TLOG_ERROR() << "Could not load certificate" << server->certFile << "or key" << server->keyFile
                 << ":" << reasons.join(QStringLiteral("; ")).toUtf8().constData();
    return 0;
}
