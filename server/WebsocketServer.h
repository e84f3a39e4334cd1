#pragma once

#include "ConnectionContext.h"
#include "OriginAllowList.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <websocketpp/config/asio.hpp>
#include <websocketpp/server.hpp>

#include <fstream>
#include <memory>

// The secure WebSocket endpoint on 127.0.0.1. It runs no event loop of its own: one thread
// creates it and drives it with poll(), and every signal is emitted on that thread.
// sendTextMessage() may be called from any thread.
class WebsocketServer : public QObject
{
    Q_OBJECT

public:
    using Endpoint = websocketpp::server<websocketpp::config::asio_tls>;
    using message_ptr = Endpoint::message_ptr;
    using TlsContextPtr = std::shared_ptr<boost::asio::ssl::context>;

    // Binds and listens; throws websocketpp::exception when that fails (e.g. the port is taken).
    // logPath is a prefix: "access.log" and "error.log" are appended to it as they are.
    WebsocketServer(unsigned short port, const QString& certfile, const QString& keyfile,
                    const QString& logpath, QObject* parent);
    ~WebsocketServer() override;

    // Web pages that may connect, by origin; others are refused with HTTP 403. Empty (the
    // default) lets every origin in. Call before start(), on the polling thread.
    void setAllowedOrigins(const QStringList& origins);

    void start();
    void poll();
    void stop();

signals:
    void onMessage(ConnectionContext context, QString message);
    void onConnect(ConnectionContext context);
    void onDisconnect(ConnectionContext context);

public slots:
    // Throws websocketpp::exception when the client is gone or its connection is not open.
    void sendTextMessage(ConnectionContext context, QString message);

private:
    bool validateHandler(websocketpp::connection_hdl hdl);
    void openHandler(websocketpp::connection_hdl hdl);
    void closeHandler(websocketpp::connection_hdl hdl);
    void messageHandler(websocketpp::connection_hdl hdl, message_ptr msg);
    TlsContextPtr tlsInitHandler(websocketpp::connection_hdl hdl);
    // OpenSSL certificate callback: puts the current certificate chain and key on one handshake.
    static int loadCredentials(SSL* ssl, void* self);

    // The library's loggers write through raw pointers to these, so they must outlive endpoint.
    std::unique_ptr<std::ofstream> accessLog;
    std::unique_ptr<std::ofstream> errorLog;

    Endpoint endpoint;
    QString certFile;
    QString keyFile;
    QString logPath;
    OriginAllowList allowedOrigins;
};
