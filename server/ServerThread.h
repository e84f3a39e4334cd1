#pragma once

#include "ConnectionContext.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QThread>

#include <condition_variable>
#include <mutex>

class WebsocketServer;

// Hosts the WebSocket endpoint on a thread of its own and keeps the list of connected clients.
// The object itself stays on the thread that created it: its slots, the client list and the
// sends run there, while run() creates and polls the endpoint on the new thread.
class ServerThread : public QThread
{
    Q_OBJECT

public:
    ServerThread(quint16 port, const QString& certFile, const QString& keyFile,
                 const QString& logPath, QObject* parent);
    // Stops and waits for a thread that is still serving, then releases the endpoint.
    ~ServerThread() override;

    // Web pages that may connect, by origin; others are refused with HTTP 403. Empty (the
    // default) lets every origin in. Takes effect only when called before start().
    void setAllowedOrigins(const QStringList& origins);

    // Blocks until run() has tried to create the endpoint; true when it is listening.
    bool waitForInit();

signals:
    void onClientConnected(ConnectionContext context);

public slots:
    void stopServer();
    // A client that cannot be sent to is logged and skipped; these never throw.
    void sendToAll(const QString& message);
    void sendToClient(const QString& message, ConnectionContext context);

    void clientConnected(ConnectionContext context);
    void clientDisconnected(ConnectionContext context);
    void messageReceived(ConnectionContext context, QString message);

protected:
    void run() override;

private:
    void serve();
    WebsocketServer* readyServer();
    void sendTo(WebsocketServer* endpoint, const ConnectionContext& context,
                const QString& message);
    bool isStopRequested();

    // Standard primitives rather than QMutex: the thread sanitizer cannot see through Qt's
    // futex-based locks, and would report every hand-over between the two threads.
    WebsocketServer* server = nullptr;
    unsigned short port;
    bool stopRequested = false;
    std::mutex stopMutex;
    std::mutex initMutex;
    bool initDone = false;
    bool initOk = false;
    std::condition_variable initCondition;
    QString certFile;
    QString keyFile;
    QString logPath;
    QStringList allowedOrigins;
    QList<ConnectionContext> clients;
};
