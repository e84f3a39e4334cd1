#include "ServerThread.h"

#include "Log.h"
#include "WebsocketServer.h"

#include <QCoreApplication>

#include <exception>

ServerThread::ServerThread(quint16 port, const QString& certFile, const QString& keyFile,
                           const QString& logPath, QObject* parent)
    : QThread(parent)
    , port(port)
    , certFile(certFile)
    , keyFile(keyFile)
    , logPath(logPath)
{
}

ServerThread::~ServerThread()
{
    // The service keeps its server thread until the process ends; this is for shorter-lived owners.
    if (isRunning()) {
        stopServer();
        wait();
    }
    // wait() has ordered all of run() before this, but through Qt's own locks, which the thread
    // sanitizer cannot see; run() ends by releasing stopMutex, and taking it shows the order.
    std::lock_guard<std::mutex> runEnded(stopMutex);
    delete server;
}

void ServerThread::setAllowedOrigins(const QStringList& origins)
{
    // run() reads the list without a lock, which is only safe before the thread exists.
    if (isRunning()) {
        TLOG_WARN() << "ServerThread: allowed origins must be set before the server starts;"
                    << "ignored.";
        return;
    }
    allowedOrigins = origins;
}

bool ServerThread::waitForInit()
{
    std::unique_lock<std::mutex> lock(initMutex);
    initCondition.wait(lock, [this] { return initDone; });
    return initOk;
}

void ServerThread::run()
{
    serve();
    std::lock_guard<std::mutex> runEnded(stopMutex);
}

void ServerThread::serve()
{
    WebsocketServer* created = nullptr;
    try {
        created = new WebsocketServer(port, certFile, keyFile, logPath, nullptr);
        created->setAllowedOrigins(allowedOrigins);
    } catch (const websocketpp::exception& error) {
        TLOG_ERROR() << "Could not create server:" << error.what();
    }

    {
        std::lock_guard<std::mutex> lock(initMutex);
        server = created;
        initOk = created != nullptr;
        initDone = true;
        initCondition.notify_all();
    }
    if (!created)
        return;

    // The endpoint emits on this thread and the receiver lives on the owner's, so these queue.
    connect(created, &WebsocketServer::onMessage, this, &ServerThread::messageReceived);
    connect(created, &WebsocketServer::onConnect, this, &ServerThread::clientConnected);
    connect(created, &WebsocketServer::onDisconnect, this, &ServerThread::clientDisconnected);

    bool stop = isStopRequested();
    created->start();
    while (!stop) {
        created->poll();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        stop = isStopRequested();
        if (!stop)
            msleep(10);
    }
    // Open connections are left as they are: no close frames on the way out.
    created->stop();
}

void ServerThread::stopServer()
{
    TLOG_DEBUG() << "ServerThread::stopServer()";
    std::lock_guard<std::mutex> lock(stopMutex);
    stopRequested = true;
}

void ServerThread::sendToAll(const QString& message)
{
    TLOG_DEBUG() << "ServerThread::sendToAll:" << message;
    WebsocketServer* endpoint = readyServer();
    if (!endpoint)
        return;
    for (const ConnectionContext& client : qAsConst(clients))
        sendTo(endpoint, client, message);
}

void ServerThread::sendToClient(const QString& message, ConnectionContext context)
{
    TLOG_DEBUG() << "ServerThread::sendToClient:" << message;
    if (WebsocketServer* endpoint = readyServer())
        sendTo(endpoint, context, message);
}

void ServerThread::clientConnected(ConnectionContext context)
{
    TLOG_DEBUG() << "ServerThread::clientConnected";
    clients.append(context);
    emit onClientConnected(context);
}

void ServerThread::clientDisconnected(ConnectionContext context)
{
    TLOG_DEBUG() << "ServerThread::clientDisconnected";
    const int removed = clients.removeAll(context);
    TLOG_DEBUG() << "ServerThread::clientDisconnected: removed" << removed << "client(s).";
}

void ServerThread::messageReceived(ConnectionContext context, QString message)
{
    Q_UNUSED(context)
    // Clients only listen; anything they send is just recorded.
    TLOG_DEBUG() << "ServerThread::messageReceived:" << message;
}

WebsocketServer* ServerThread::readyServer()
{
    WebsocketServer* ready = nullptr;
    {
        std::lock_guard<std::mutex> lock(initMutex);
        ready = initOk ? server : nullptr;
    }
    if (!ready)
        TLOG_WARN() << "ServerThread: no server is running; message dropped.";
    return ready;
}

void ServerThread::sendTo(WebsocketServer* endpoint, const ConnectionContext& context,
                          const QString& message)
{
    // A client may vanish at any moment, and its close is reported seconds later; a send in
    // that window fails. Escaping into the event loop would end the whole service.
    try {
        endpoint->sendTextMessage(context, message);
    } catch (const std::exception& error) {
        // The address matches the endpoint's "on_open" line while the connection still exists.
        if (const auto connection = context.hdl.lock()) {
            TLOG_WARN() << "ServerThread: could not send to client" << connection.get() << ":"
                        << error.what();
        } else {
            TLOG_WARN() << "ServerThread: could not send to client (connection gone):"
                        << error.what();
        }
    }
}

bool ServerThread::isStopRequested()
{
    std::lock_guard<std::mutex> lock(stopMutex);
    return stopRequested;
}
