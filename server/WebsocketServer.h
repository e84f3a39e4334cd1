#pragma once

#include "AcceptLoop.h"
#include "AdmittedClients.h"
#include "ClientProtocol.h"
#include "ConnectionContext.h"
#include "EndpointConfig.h"
#include "HandshakeWorker.h"
#include "HealthRequests.h"
#include "OriginAllowList.h"
#include "TlsCredentials.h"

#include <QString>
#include <QStringList>

#include <websocketpp/processors/hybi13.hpp>
#include <websocketpp/server.hpp>

#include <deque>
#include <functional>
#include <mutex>
#include <memory>
#include <ostream>
#include <string>

// The secure WebSocket endpoint on 127.0.0.1 and the clients it broadcasts to. run() makes the
// calling thread its server thread; everything else except post() must run on that thread,
// where every callback is made as well.
class WebsocketServer
{
public:
    using Endpoint = websocketpp::server<EndpointConfig>;
    using message_ptr = Endpoint::message_ptr;

    struct Callbacks
    {
        std::function<void(const ConnectionContext&)> opened;
        // How many admitted clients the close removed (0 for one never admitted).
        std::function<void(websocketpp::connection_hdl, int removed)> closed;
        std::function<void(websocketpp::connection_hdl, const std::string& payload)> messageReceived;
        // How many clients broadcasts reach, each time that changes.
        std::function<void(int admitted)> admittedChanged;
        // The body of GET /health; without it every plain HTTP request gets 426.
        HealthRequests::Source health;
    };

    // Binds and listens; throws std::exception when that fails (e.g. the port is taken).
    // logPath is a prefix: "access.log" and "error.log" are appended to it as they are.
    WebsocketServer(unsigned short port, const QString& certFile, const QString& keyFile,
                    const QString& logPath, const QStringList& allowedOrigins,
                    Callbacks callbacks);
    ~WebsocketServer();
    WebsocketServer(const WebsocketServer&) = delete;
    WebsocketServer& operator=(const WebsocketServer&) = delete;

    // Connections beyond this many are closed as they are accepted. Before run().
    void setMaxClients(int count) { accept.setMaxConnections(count); }
    // Serves until stop(). Returns at once if stop() has already run.
    void run();

    // Any thread: queues work for the server thread. Work posted from one thread runs in
    // the order it was posted, and ahead of the library's own handlers: a card event waits
    // for the one handler that is running, not behind a queue of TLS handshakes.
    void post(std::function<void()> work);

    // Server thread only. A client that cannot be sent to is logged and skipped.
    void sendToAll(const QString& message);
    void sendToAll(const ProtocolTexts& texts);
    void admit(const ConnectionContext& context, const QStringList& greeting);
    // Stops listening and ends run(); open connections get no close frames.
    void stop();

private:
    bool validateHandler(websocketpp::connection_hdl hdl);
    bool originAllowed(const Endpoint::connection_ptr& connection);
    void openHandler(websocketpp::connection_hdl hdl);
    void closeHandler(websocketpp::connection_hdl hdl);
    void messageHandler(websocketpp::connection_hdl hdl, message_ptr msg);
    bool pingHandler(websocketpp::connection_hdl hdl, const std::string& payload);
    void httpHandler(websocketpp::connection_hdl hdl);
    void runPosted();
    void admittedChanged();

    // False, after dropping the client, when `bytes` more would pass its bound of unsent data.
    bool hasRoomFor(const Endpoint::connection_ptr& connection, size_t bytes);

    // One frame for all recipients: the library's, and the same as bytes on the wire. The
    // message is null (and logged) when it cannot be made.
    struct Frame
    {
        message_ptr message;
        std::string wire;
    };
    Frame prepareFrame(const QString& message);
    void sendTo(ClientProtocol protocol, const Frame& frame);
    void deliver(const Endpoint::connection_ptr& connection, const Frame& frame);

    // The library's loggers write through raw pointers to these, so they must outlive endpoint;
    // and the connections the endpoint still holds at the end use the TLS context.
    std::unique_ptr<std::ostream> accessLog;
    std::unique_ptr<std::ostream> errorLog;
    TlsCredentials tls;

    // Ours rather than the library's, so that run() can interleave the posted work with it.
    // Run by one thread only, which spares handlers posted from that thread the queue's lock.
    boost::asio::io_context ioContext;
    Endpoint endpoint;
    AcceptLoop accept;
    // Declared after the endpoint: stopped, and its queued handshakes dropped, before the
    // connections they belong to are.
    HandshakeWorker handshakes;
    OriginAllowList allowedOrigins;
    Callbacks callbacks;
    HealthRequests healthRequests;
    AdmittedClients admitted;
    bool stopped = false;

    // Posted work, run between the library's handlers.
    std::mutex postedMutex;
    std::deque<std::function<void()>> posted;

    // Frames every client of the current protocol accepts, made once per broadcast.
    EndpointConfig::rng_type rng;
    EndpointConfig::con_msg_manager_type::ptr messages;
    websocketpp::processor::hybi13<EndpointConfig> framer;
};
