#include "WebSocketServiceCommon.h"

#include "PCSCMonitor.h"
#include "Settings.h"
#include "ThreadJoin.h"

#include "PcscService.h"
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
#include <QThread>

namespace {

// A stop can fall between the card loop's last look at its flag and the start of its wait,
// where the cancel is lost; stopping again now and then ends such a wait too.
void stopAndJoin(SmartCardController* card, QThread* thread)
{
    card->stop();
    thread->quit();
    while (!ThreadJoin::wait(thread, 100))
        card->stop();
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

    connect(serverThread, &ServerThread::onClientConnected, serverThread,
            [this](ConnectionContext context) { greetClient(context); }, Qt::DirectConnection);
    initCardHandling();
    return true;
}

void WebSocketServiceCommon::initCardHandling()
{
    TLOG_INFO() << "Initializing card handling...";
    cardObject = new SmartCardController(nullptr);
    if (!cardObject->Initialize()) {
        delete cardObject;
        cardObject = nullptr;
        TLOG_WARN() << "No PCSC running, starting monitor thread.";
        startMonitor();
        return;
    }

    connectCardEvents();
    cardThread = new QThread(nullptr);
    qDebug() << "cardObject->moveToThread(cardThread)";
    cardObject->moveToThread(cardThread);
    connect(cardThread, &QThread::started, cardObject, &SmartCardController::process);
    connect(cardThread, &QThread::finished, cardThread, [] { qDebug() << "Card thread finished."; },
            Qt::DirectConnection);
    ThreadJoin::announceEnd(cardThread);
    cardThread->start();
}

// Messages are built on the card thread and handed straight to the server.
void WebSocketServiceCommon::connectCardEvents()
{
    using Card = SmartCardController;
    connect(cardObject, &Card::onRFID, cardObject, [this](QString cardID) { sendToAll(TagCommand::build(cardID)); },
            Qt::DirectConnection);
    connect(cardObject, &Card::onSC, cardObject, [this](QString cardID) { sendToAll(SCCommand::build(cardID)); },
            Qt::DirectConnection);
    connect(cardObject, &Card::onReaderConnect, cardObject,
            [this](QString reader) { announceReader(reader, true); }, Qt::DirectConnection);
    connect(cardObject, &Card::onReaderDisconnect, cardObject,
            [this](QString reader) { announceReader(reader, false); }, Qt::DirectConnection);
    connect(cardObject, &Card::onError, cardObject,
            [](unsigned int code, QString message) { qDebug() << "Card reader error" << code << message; },
            Qt::DirectConnection);
    connect(cardObject, &Card::serviceLost, this, &WebSocketServiceCommon::cardServiceLost, Qt::QueuedConnection);
}

// The card loop has ended and said so in the log; the monitor waits for PC/SC to return.
void WebSocketServiceCommon::cardServiceLost()
{
    if (stopped || !cardThread)
        return;
    stopCardThread();
    startMonitor();
}

void WebSocketServiceCommon::pcscAvailable()
{
    if (stopped)
        return;
    stopMonitor();
    TLOG_INFO() << "PC/SC service available.";
    initCardHandling();
}

void WebSocketServiceCommon::startMonitor()
{
    monitorThread = new QThread(nullptr);
    pcscMonitor = new PCSCMonitor(&PcscService::isAvailable, nullptr);
    pcscMonitor->moveToThread(monitorThread);
    connect(monitorThread, &QThread::started, pcscMonitor, &PCSCMonitor::process);
    connect(pcscMonitor, &PCSCMonitor::pcscAvailable, this, &WebSocketServiceCommon::pcscAvailable,
            Qt::QueuedConnection);
    ThreadJoin::announceEnd(monitorThread);
    monitorThread->start();
}

void WebSocketServiceCommon::stopMonitor()
{
    if (!monitorThread)
        return;
    pcscMonitor->stop();
    monitorThread->quit();
    ThreadJoin::wait(monitorThread);
    delete pcscMonitor;
    pcscMonitor = nullptr;
    delete monitorThread;
    monitorThread = nullptr;
}

// With its thread ended the controller can be deleted here directly: a deferred delete would
// never run.
void WebSocketServiceCommon::stopCardThread()
{
    if (cardThread)
        stopAndJoin(cardObject, cardThread);
    delete cardObject;
    cardObject = nullptr;
    delete cardThread;
    cardThread = nullptr;
}

void WebSocketServiceCommon::greetClient(const ConnectionContext& context)
{
    qDebug() << "Client connected.";
    std::lock_guard<std::mutex> lock(readersMutex);
    QStringList greeting;
    for (const QString& reader : qAsConst(knownReaders))
        greeting << ReaderCommand::build(reader, true);
    greeting << VersionCommand::build(QCoreApplication::applicationVersion());
    serverThread->admitClient(context, greeting);
}

void WebSocketServiceCommon::announceReader(const QString& name, bool connected)
{
    const QString text = ReaderCommand::build(name, connected);
    std::lock_guard<std::mutex> lock(readersMutex);
    if (connected)
        knownReaders.append(name);
    else
        knownReaders.removeOne(name);
    serverThread->sendToAll(text);
}

void WebSocketServiceCommon::sendToAll(const QString& message)
{
    serverThread->sendToAll(message);
}

void WebSocketServiceCommon::stop()
{
    stopped = true;
    if (serverThread) {
        serverThread->stopServer();
        serverThread->wait();
    }
    stopMonitor();
    stopCardThread();
    Settings::Instance()->SaveSettings();
}

void WebSocketServiceCommon::loadSettings() {}

void WebSocketServiceCommon::saveSettings()
{
    Settings::Instance()->SaveSettings();
}
