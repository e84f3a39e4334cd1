#include "WebSocketServiceCommon.h"

#include "PCSCMonitor.h"
#include "Settings.h"

#include "CardEventPublisher.h"
#include "ServiceHealth.h"
#include "PcscService.h"
#include "ServerThread.h"
#include "SmartCardController.h"
#include "TlsCredentials.h"

#include "Log.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>

WebSocketServiceCommon::WebSocketServiceCommon(QObject* parent)
    : QObject(parent), healthState(std::make_unique<ServiceHealth>(QCoreApplication::applicationVersion()))
{
}

// Members go in reverse order: the monitor and the card thread end before the server thread
// their handlers send to. Nothing is saved: a service that never served has nothing to keep.
WebSocketServiceCommon::~WebSocketServiceCommon() = default;

bool WebSocketServiceCommon::start()
{
    if (stopped)
        return false;
    Settings* settings = Settings::Instance();
    const QString certFile = settings->GetCertFile();
    const QString keyFile = settings->GetKeyFile();

    TLOG_DEBUG() << "Certfile:" << certFile;
    TLOG_DEBUG() << "Keyfile:" << keyFile;

    const QString missing = !QFile::exists(certFile) ? certFile : !QFile::exists(keyFile) ? keyFile : QString();
    if (!missing.isEmpty()) {
        TLOG_ERROR().noquote() << QStringLiteral("Unable to load certificate or key. \"%1\" does not exist.").arg(missing);
        return false;
    }
    // Parsed once here as every handshake will, so that a pair that could never serve stops the
    // start instead of failing each client.
    const QString tlsProblem = TlsCredentials::check(certFile, keyFile);
    if (!tlsProblem.isEmpty()) {
        TLOG_ERROR().noquote() << tlsProblem;
        return false;
    }

    serverThread = std::make_unique<ServerThread>(settings->GetPort(), certFile, keyFile, settings->GetLogPath(),
                                                  nullptr);
    serverThread->setAllowedOrigins(settings->GetAllowedOrigins());
    serverThread->setLogCardIds(settings->GetLogCardIds());
    ServiceHealth* health = healthState.get();
    serverThread->setHealthSource([health] { return health->toJson(); });
    connect(serverThread.get(), &ServerThread::clientCountChanged, serverThread.get(),
            [health](int clients) { health->setClientCount(clients); }, Qt::DirectConnection);
    serverThread->setMaxClients(settings->GetMaxClients());
    publisher = std::make_unique<CardEventPublisher>(
        CardEventPublisher::Options{settings->GetTagIdFormat(), settings->GetReaderRules(),
                                    std::chrono::milliseconds(settings->GetRepeatWindow())},
        QCoreApplication::applicationVersion(),
        [server = serverThread.get()](const ProtocolTexts& texts) { server->sendToAll(texts); });
    // Connected before the thread runs, so that no client can open before it is greeted.
    connect(serverThread.get(), &ServerThread::onClientConnected, serverThread.get(),
            [this](ConnectionContext context) {
                qDebug() << "Client connected.";
                publisher->greet(context.protocol,
                                 [&](const QStringList& greeting) { serverThread->admitClient(context, greeting); });
            },
            Qt::DirectConnection);
    serverThread->start();
    if (!serverThread->waitForInit())
        return false;

    startCardHandling();
    emit serving();
    return true;
}

void WebSocketServiceCommon::setCardHeartbeat(std::function<void()> beat, std::chrono::milliseconds every)
{
    cardHeartbeat = std::move(beat);
    cardBeatInterval = every;
}

bool WebSocketServiceCommon::postToServerThread(std::function<void()> work)
{
    return serverThread && serverThread->post(std::move(work));
}

void WebSocketServiceCommon::cardBeat()
{
    if (cardHeartbeat)
        cardHeartbeat();
}

void WebSocketServiceCommon::startCardHandling()
{
    TLOG_INFO() << "Initializing card handling...";
    // Neither loop runs while they change hands.
    cardBeat();
    auto controller = std::make_unique<SmartCardController>();
    if (!controller->initialize()) {
        TLOG_WARN() << "No PCSC running, starting monitor thread.";
        healthState->setPcscUp(false);
        startMonitor();
        return;
    }
    healthState->setPcscUp(true);
    if (cardHeartbeat)
        controller->setHeartbeat(cardHeartbeat, cardBeatInterval);

    const ReaderRules rules = Settings::Instance()->GetReaderRules();
    controller->setIgnoredReaders([rules](const QString& reader) { return rules.ignores(reader); });

    // The handlers run on the card thread: each event goes from there straight to the publisher.
    using Card = SmartCardController;
    Card* events = controller.get();
    CardEventPublisher* told = publisher.get();
    ServiceHealth* health = healthState.get();
    connect(events, &Card::onRFID, events,
            [told, health](QString reader, QByteArray uid) {
                told->tagRead(reader, uid);
                health->cardEvent();
            },
            Qt::DirectConnection);
    connect(events, &Card::onSC, events,
            [told, health](QString reader, QByteArray id) {
                told->smartCardRead(reader, id);
                health->cardEvent();
            },
            Qt::DirectConnection);
    connect(events, &Card::cardRemoved, events,
            [told, health](QString reader) {
                told->cardRemoved(reader);
                health->cardEvent();
            },
            Qt::DirectConnection);
    connect(events, &Card::onReaderConnect, events,
            [told, health, rules](QString reader) {
                told->readerConnected(reader);
                health->readerConnected(rules.displayName(reader));
            },
            Qt::DirectConnection);
    connect(events, &Card::onReaderDisconnect, events,
            [told, health, rules](QString reader) {
                told->readerDisconnected(reader);
                health->readerDisconnected(rules.displayName(reader));
            },
            Qt::DirectConnection);
    connect(events, &Card::serviceLost, this, &WebSocketServiceCommon::cardServiceLost, Qt::QueuedConnection);

    qDebug() << "cardObject->moveToThread(cardThread)";
    card = std::make_unique<WorkerThread<SmartCardController>>(std::move(controller));
    card->start();
}

// The card loop has ended and said so in the log; the monitor waits for PC/SC to return.
void WebSocketServiceCommon::cardServiceLost()
{
    if (stopped || !card)
        return;
    endCardHandling();
    healthState->setPcscUp(false);
    cardBeat();
    startMonitor();
}

void WebSocketServiceCommon::endCardHandling()
{
    if (!card)
        return;
    card.reset();
    qDebug() << "Card thread finished.";
}

void WebSocketServiceCommon::startMonitor()
{
    monitor = std::make_unique<WorkerThread<PCSCMonitor>>(std::make_unique<PCSCMonitor>(&PcscService::isAvailable));
    monitor->worker().setHeartbeat(cardHeartbeat);
    connect(&monitor->worker(), &PCSCMonitor::pcscAvailable, this, &WebSocketServiceCommon::pcscAvailable,
            Qt::QueuedConnection);
    monitor->start();
}

void WebSocketServiceCommon::pcscAvailable()
{
    if (stopped || !monitor)
        return;
    monitor.reset();
    TLOG_INFO() << "PC/SC service available.";
    startCardHandling();
}

void WebSocketServiceCommon::stop()
{
    if (stopped)
        return;
    stopped = true;
    emit stopping();
    if (serverThread) {
        serverThread->stopServer();
        serverThread->wait();
    }
    monitor.reset();
    endCardHandling();
    Settings::Instance()->SaveSettings();
}
