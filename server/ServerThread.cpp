#include "ServerThread.h"

#include "Log.h"
#include "WebsocketServer.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <openssl/crypto.h>

#include <exception>

namespace {

// Queued signals and invokeMethod() calls carry contexts across threads, so the type must be
// known by name before any of them happens.
[[maybe_unused]] const int connectionContextTypeId =
    qRegisterMetaType<ConnectionContext>("ConnectionContext");
[[maybe_unused]] const int protocolTextsTypeId = qRegisterMetaType<ProtocolTexts>("ProtocolTexts");

// Clients only listen; what they send is recorded, but a flood must not flood the log too.
const int loggedMessageLength = 200;
const int loggedMessagesPerSecond = 5;

} // namespace

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
    // sanitizer cannot see; run() ends by releasing the mutex, and taking it shows the order.
    std::lock_guard<std::mutex> runEnded(mutex);
    server.reset();
}

// run() reads the settings without a lock, which is only safe before the thread exists.
bool ServerThread::tooLateFor(const char* setting) const
{
    if (!isRunning())
        return false;
    TLOG_WARN().noquote() << QStringLiteral("ServerThread: %1 must be set before the server starts; ignored.")
                                 .arg(QLatin1String(setting));
    return true;
}

void ServerThread::setAllowedOrigins(const QStringList& origins)
{
    if (!tooLateFor("allowed origins"))
        allowedOrigins = origins;
}

void ServerThread::setLogCardIds(bool enabled)
{
    if (tooLateFor("logcardids"))
        return;
    logCardIds = enabled;
    if (enabled)
        TLOG_WARN() << "Card IDs are being logged (logcardids=true).";
}

void ServerThread::setHealthSource(std::function<QByteArray()> source)
{
    if (!tooLateFor("the health source"))
        healthSource = std::move(source);
}

void ServerThread::setMaxClients(int count)
{
    if (!tooLateFor("maxclients"))
        maxClients = count;
}

bool ServerThread::waitForInit()
{
    std::unique_lock<std::mutex> lock(mutex);
    initCondition.wait(lock, [this] { return initDone; });
    return initOk;
}

void ServerThread::run()
{
    serve();
    // OpenSSL would free this thread's own state only as the thread exits, after wait() has
    // returned, and so possibly while the exiting process frees OpenSSL itself.
    OPENSSL_thread_stop();
    std::lock_guard<std::mutex> runEnded(mutex);
}

void ServerThread::serve()
{
    WebsocketServer::Callbacks callbacks;
    callbacks.opened = [this](const ConnectionContext& context) { clientConnected(context); };
    callbacks.closed = [this](websocketpp::connection_hdl hdl, int removed) { clientDisconnected(hdl, removed); };
    callbacks.messageReceived = [this](websocketpp::connection_hdl hdl, const std::string& payload) {
        messageReceived(hdl, payload);
    };
    callbacks.admittedChanged = [this](int clients) { emit clientCountChanged(clients); };
    callbacks.health = healthSource;

    std::unique_ptr<WebsocketServer> created;
    try {
        created = std::make_unique<WebsocketServer>(port, certFile, keyFile, logPath,
                                                    allowedOrigins, std::move(callbacks));
        created->setMaxClients(maxClients);
    } catch (const std::exception& error) {
        TLOG_ERROR() << "Could not create server:" << error.what();
    }

    WebsocketServer* serving = created.get();
    {
        std::lock_guard<std::mutex> lock(mutex);
        server = std::move(created);
        initOk = serving != nullptr;
        initDone = true;
        // A stop that came before there was a server to queue it on.
        if (serving && stopRequested)
            serving->post([serving] { serving->stop(); });
    }
    initCondition.notify_all();
    if (serving)
        serving->run();
}

template <typename Work>
void ServerThread::queue(Work&& work)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!server) {
        TLOG_WARN() << "ServerThread: no server is running; message dropped.";
        return;
    }
    WebsocketServer* serving = server.get();
    server->post([serving, work = std::forward<Work>(work)] { work(*serving); });
}

bool ServerThread::post(std::function<void()> work)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!server)
        return false;
    server->post(std::move(work));
    return true;
}

void ServerThread::stopServer()
{
    TLOG_DEBUG() << "ServerThread::stopServer()";
    std::lock_guard<std::mutex> lock(mutex);
    stopRequested = true;
    if (WebsocketServer* serving = server.get())
        serving->post([serving] { serving->stop(); });
}

// The texts come from the project's own builders; only these fields are ever shown.
QString ServerThread::describe(const QString& message) const
{
    if (logCardIds) {
        // Quoted as QDebug quotes: one line in the log, whatever the text holds.
        QString quoted;
        QDebug(&quoted).nospace() << message;
        return quoted;
    }
    const QByteArray text = message.toUtf8();
    const QJsonObject fields = QJsonDocument::fromJson(text).object();
    const QString type = fields.value(QLatin1String("type")).toString();
    QString description = type.isEmpty() ? QStringLiteral("text") : type;
    QString reader = fields.value(QLatin1String("reader")).toString();
    if (reader.isEmpty() && type == QLatin1String("READER"))
        reader = fields.value(QLatin1String("name")).toString();
    if (!reader.isEmpty())
        description += QStringLiteral(" from \"%1\"").arg(reader);
    return description + QStringLiteral(", %1 bytes").arg(text.size());
}

QString ServerThread::describe(const QStringList& messages) const
{
    QStringList described;
    for (const QString& message : messages)
        described << describe(message);
    return described.join(QLatin1String("; "));
}

// Logged once the message is on its way: the clients need not wait for the log.
void ServerThread::sendToAll(const QString& message)
{
    queue([message](WebsocketServer& serving) { serving.sendToAll(message); });
    TLOG_DEBUG().noquote() << "ServerThread::sendToAll:" << describe(message);
}

void ServerThread::sendToAll(const ProtocolTexts& texts)
{
    queue([texts](WebsocketServer& serving) { serving.sendToAll(texts); });
    // Version 2 names the reader.
    TLOG_DEBUG().noquote() << "ServerThread::sendToAll:"
                           << describe(texts.version2.isEmpty() ? texts.original : texts.version2);
}

void ServerThread::admitClient(ConnectionContext context, const QStringList& greeting)
{
    TLOG_DEBUG().noquote() << "ServerThread::admitClient:" << greeting.size() << "greeting message(s):"
                           << describe(greeting);
    queue([context, greeting](WebsocketServer& serving) { serving.admit(context, greeting); });
}

void ServerThread::clientConnected(const ConnectionContext& context)
{
    TLOG_DEBUG() << "ServerThread::clientConnected";
    emit onClientConnected(context);
}

void ServerThread::clientDisconnected(websocketpp::connection_hdl hdl, int removed)
{
    messageLogBudgets.erase(hdl);
    TLOG_DEBUG() << "ServerThread::clientDisconnected: removed" << removed << "client(s).";
}

void ServerThread::messageReceived(websocketpp::connection_hdl hdl, const std::string& payload)
{
    if (Log::Logger::instance().loggingLevel() > Log::LevelDebug)
        return;
    MessageLogBudget& budget = messageLogBudgets[hdl];
    const auto now = std::chrono::steady_clock::now();
    if (now - budget.since >= std::chrono::seconds(1)) {
        budget.since = now;
        budget.logged = 0;
    }
    if (budget.logged == loggedMessagesPerSecond) {
        ++budget.skipped;
        return;
    }
    ++budget.logged;

    // Like any C string handed over, the text ends at its first zero byte.
    const QString text = QString::fromUtf8(payload.c_str());
    QByteArray notes;
    if (text.size() > loggedMessageLength)
        notes = "(" + QByteArray::number(qulonglong(payload.size())) + " bytes in all)";
    if (budget.skipped > 0) {
        notes += (notes.isEmpty() ? "(" : " (") + QByteArray::number(budget.skipped)
                 + " more message(s) from this client not logged)";
        budget.skipped = 0;
    }
    if (notes.isEmpty())
        TLOG_DEBUG() << "ServerThread::messageReceived:" << text;
    else
        TLOG_DEBUG() << "ServerThread::messageReceived:" << text.left(loggedMessageLength) << notes.constData();
}
