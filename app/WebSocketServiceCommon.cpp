#include "WebSocketServiceCommon.h"

#include "PCSCMonitor.h"
#include "Settings.h"
#include "ThreadJoin.h"

#include "ReaderCommand.h"
#include "SCCommand.h"
#include "ServerThread.h"
#include "SmartCardController.h"
#include "TagCommand.h"
#include "VersionCommand.h"

#include "Log.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

namespace {

QString messageText(const QJsonObject& message)
{
    return QString::fromUtf8(QJsonDocument(message).toJson());
}

// The codes after which the PC/SC context is useless and card handling must start afresh.
bool isFatalCardError(unsigned int code)
{
    return code == 0x80100013u     // communication error
           || code == 0x8010001Du  // PC/SC service not running
           || code == 0x8010001Eu; // PC/SC service stopped
}

} // namespace

WebSocketServiceCommon::WebSocketServiceCommon(QObject* parent) : QObject(parent) {}

// Runs at process end, after stop(): the stopped server thread goes last so that its endpoint
// and the connections it still holds are released rather than abandoned.
WebSocketServiceCommon::~WebSocketServiceCommon()
{
    delete serverThread;
}

bool WebSocketServiceCommon::start()
{
    Settings* settings = Settings::Instance();
    const QString certFile = settings->GetCertFile();
    const QString keyFile = settings->GetKeyFile();
    const QString logPath = settings->GetLogPath();
    const quint16 port = settings->GetPort();

    TLOG_DEBUG() << "Certfile:" << certFile;
    TLOG_DEBUG() << "Keyfile:" << keyFile;

    if (!QFile::exists(certFile) || !QFile::exists(keyFile)) {
        TLOG_ERROR() << "Unable to load certificate or key.";
        return false;
    }

    serverThread = new ServerThread(port, certFile, keyFile, logPath, nullptr);
    serverThread->setAllowedOrigins(settings->GetAllowedOrigins());
    serverThread->start();
    if (!serverThread->waitForInit())
        return false;

    initCardHandling();

    connect(serverThread, &ServerThread::onClientConnected, serverThread,
            [this](ConnectionContext context) { greetClient(context); }, Qt::DirectConnection);
    return true;
}

void WebSocketServiceCommon::initCardHandling()
{
    cardObject = new SmartCardController(nullptr);
    TLOG_INFO() << "Initializing card handling...";

    if (attemptCardHandling())
        return;

    TLOG_WARN() << "No PCSC running, starting monitor thread.";
    monitorThread = new QThread(this);
    // A later attempt runs on the monitor thread and moves the controller on to its card
    // thread from there; Qt lets only the owning thread move an object.
    cardObject->moveToThread(monitorThread);
    // Once a retry has started card handling the monitor thread has nothing left to do.
    auto attempt = [this] {
        const bool started = attemptCardHandling();
        if (started)
            QThread::currentThread()->quit();
        return started;
    };
    pcscMonitor = new PCSCMonitor(attempt, nullptr);
    pcscMonitor->moveToThread(monitorThread);
    connect(monitorThread, &QThread::started, pcscMonitor, &PCSCMonitor::process);
    ThreadJoin::announceEnd(monitorThread);
    monitorThread->start();
}

bool WebSocketServiceCommon::attemptCardHandling()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!cardObject->Initialize())
        return false;

    // Messages are built on the card thread; serverThread is read at the moment of the event.
    connect(cardObject, &SmartCardController::onRFID, cardObject,
            [this](QString cardID) { sendToAll(TagCommand::build(cardID)); }, Qt::DirectConnection);
    connect(cardObject, &SmartCardController::onSC, cardObject,
            [this](QString cardID) { sendToAll(SCCommand::build(cardID)); }, Qt::DirectConnection);
    connect(cardObject, &SmartCardController::onReaderConnect, cardObject,
            [this](QString reader) { sendToAll(ReaderCommand::build(reader, true)); }, Qt::DirectConnection);
    connect(cardObject, &SmartCardController::onReaderDisconnect, cardObject,
            [this](QString reader) { sendToAll(ReaderCommand::build(reader, false)); }, Qt::DirectConnection);

    cardThread = new QThread(nullptr);
    // Made on the monitor thread after a retry: hand it to the main thread, which ends it.
    cardThread->moveToThread(QCoreApplication::instance()->thread());

    qDebug() << "cardObject->moveToThread(cardThread)";
    cardObject->moveToThread(cardThread);

    connect(cardObject, SIGNAL(onError(unsigned int,QString)), this,
            SLOT(cardReaderError(unsigned int,QString)), Qt::QueuedConnection);
    connect(cardThread, &QThread::started, cardObject, &SmartCardController::process);
    connect(cardThread, &QThread::finished, cardThread, [] { qDebug() << "Card thread finished."; },
            Qt::DirectConnection);
    ThreadJoin::announceEnd(cardThread);
    cardThread->start();
    return true;
}

void WebSocketServiceCommon::greetClient(const ConnectionContext& context)
{
    if (!cardObject)
        return;
    const QVector<QString> readers = cardObject->GetReaders();
    qDebug() << "Client connected.";
    QStringList greeting;
    for (const QString& reader : readers)
        greeting << messageText(ReaderCommand::build(reader, true));
    greeting << messageText(VersionCommand::build(QCoreApplication::applicationVersion()));
    serverThread->admitClient(context, greeting);
}

void WebSocketServiceCommon::sendToAll(const QJsonObject& message)
{
    QMetaObject::invokeMethod(serverThread, "sendToAll", Qt::AutoConnection,
                              Q_ARG(QString, messageText(message)));
}

void WebSocketServiceCommon::sendToClient(const QJsonObject& message, const ConnectionContext& context)
{
    QMetaObject::invokeMethod(serverThread, "sendToClient", Qt::AutoConnection,
                              Q_ARG(QString, messageText(message)), Q_ARG(ConnectionContext, context));
}

void WebSocketServiceCommon::cardReaderError(unsigned int code, QString message)
{
    qDebug() << "Card reader error" << code << message;
    if (!isFatalCardError(code))
        return;
    // One failing read can queue several fatal errors; only the current controller's count.
    if (!cardObject || (sender() && sender() != cardObject))
        return;

    stopMonitor();
    stopCardThread();
    initCardHandling();
}

// Ends a monitor left from an earlier attempt, so restarts never pile up threads.
void WebSocketServiceCommon::stopMonitor()
{
    // A monitor whose retry succeeded has already ended its thread; waiting is then immediate.
    if (monitorThread) {
        pcscMonitor->stop();
        monitorThread->quit();
        ThreadJoin::wait(monitorThread);
    }
    delete pcscMonitor;
    pcscMonitor = nullptr;
    delete monitorThread;
    monitorThread = nullptr;
}

// Stops the card controller and its thread and releases both. With its thread ended the
// controller can be deleted here directly: a deferred delete would never run.
void WebSocketServiceCommon::stopCardThread()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (cardThread) {
        cardObject->stop();
        cardThread->quit();
        ThreadJoin::wait(cardThread);
    }
    delete cardObject;
    cardObject = nullptr;
    delete cardThread;
    cardThread = nullptr;
}

void WebSocketServiceCommon::stop()
{
    if (serverThread) {
        serverThread->stopServer();
        serverThread->wait();
    }
    if (cardObject) {
        stopMonitor();
        stopCardThread();
    }
    Settings::Instance()->SaveSettings();
}

void WebSocketServiceCommon::loadSettings() {}

void WebSocketServiceCommon::saveSettings()
{
    Settings::Instance()->SaveSettings();
}
