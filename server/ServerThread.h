#pragma once

#include "ClientProtocol.h"
#include "ConnectionContext.h"

#include <QString>
#include <QStringList>
#include <QThread>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class WebsocketServer;

// Hosts the WebSocket endpoint on a thread of its own, which waits on the endpoint's network
// loop. Every public member may be called from any thread: the work is queued onto that loop,
// so the endpoint and its clients are touched by the server thread alone, and work queued from
// one thread runs in the order it was queued.
class ServerThread : public QThread
{
    Q_OBJECT

public:
    // About 24 KiB each: 10000 clients stay well below a gigabyte.
    static const int defaultMaxClients = 10000;

    ServerThread(quint16 port, const QString& certFile, const QString& keyFile,
                 const QString& logPath, QObject* parent);
    // Stops and waits for a thread that is still serving, then releases the endpoint.
    ~ServerThread() override;

    // Web pages that may connect, by origin; others are refused with HTTP 403. Empty (the
    // default) lets every origin in. Takes effect only when called before start().
    void setAllowedOrigins(const QStringList& origins);
    // Debug lines of what is sent name each message's type, reader and size; with this set
    // they hold the whole texts, card identifiers and all. Only before start(), like the origins.
    void setLogCardIds(bool enabled);
    // What GET /health answers with. Called on the server thread for each request, so it must
    // be cheap and thread-safe. Only before start(); without it, /health is not served.
    void setHealthSource(std::function<QByteArray()> source);
    // Connections at once, open or still in their handshakes; more are refused as they come.
    // Only before start().
    void setMaxClients(int count);

    // Blocks until run() has tried to create the endpoint; true when it is listening.
    bool waitForInit();
    // Runs `work` on the server thread, in order with the rest; false, silently, when there is
    // no server to run it. Work queued after a stop never runs.
    bool post(std::function<void()> work);

signals:
    // Emitted on the server thread once a client's WebSocket is open; its context says which
    // protocol it speaks. It gets no broadcasts until admitClient() is called for it.
    void onClientConnected(ConnectionContext context);
    // Emitted on the server thread whenever the number of admitted clients changes.
    void clientCountChanged(int clients);

public slots:
    // Ends the thread; open connections get no close frames.
    void stopServer();
    // To every admitted client. A client that cannot be sent to is logged and skipped.
    void sendToAll(const QString& message);
    // Each admitted client gets the text of its protocol, or nothing when that text is empty.
    void sendToAll(const ProtocolTexts& texts);
    // Sends the greeting to the client, in order, and includes it in every later sendToAll.
    void admitClient(ConnectionContext context, const QStringList& greeting);

protected:
    void run() override;

private:
    // True, after a warning, once the thread runs: settings only take effect before.
    bool tooLateFor(const char* setting) const;
    void serve();
    // Runs work(WebsocketServer&) on the server thread; dropped, with a warning, when there is
    // no server.
    template <typename Work>
    void queue(Work&& work);

    void clientConnected(const ConnectionContext& context);
    void clientDisconnected(websocketpp::connection_hdl hdl, int removed);
    void messageReceived(websocketpp::connection_hdl hdl, const std::string& payload);
    QString describe(const QString& message) const;
    QString describe(const QStringList& messages) const;

    // Standard primitives rather than QMutex: the thread sanitizer cannot see through Qt's
    // futex-based locks, and would report every hand-over between the threads.
    std::unique_ptr<WebsocketServer> server;
    unsigned short port;
    std::mutex mutex; // guards server (being set), the init outcome and stopRequested
    std::condition_variable initCondition;
    bool initDone = false;
    bool initOk = false;
    bool stopRequested = false;
    QString certFile;
    QString keyFile;
    QString logPath;
    QStringList allowedOrigins;
    bool logCardIds = false;
    std::function<QByteArray()> healthSource;
    int maxClients = defaultMaxClients;

    // Server thread only: how much of each client's messages the log has taken this second.
    struct MessageLogBudget
    {
        std::chrono::steady_clock::time_point since;
        int logged = 0;
        int skipped = 0;
    };
    std::map<websocketpp::connection_hdl, MessageLogBudget, std::owner_less<websocketpp::connection_hdl>>
        messageLogBudgets;
};
