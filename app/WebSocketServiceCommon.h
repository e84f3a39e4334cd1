#pragma once

#include "ConnectionContext.h"
#include "WorkerThread.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>

class PCSCMonitor;
class ServerThread;
class SmartCardController;

// The service controller: starts the WebSocket server thread and card handling (or, while
// PC/SC is away, a monitor that waits for it), turns card events into client messages,
// greets new clients with the readers known at that moment, starts card handling afresh
// after PC/SC was lost, and stops everything in order.
//
// Threads:
// - main: start(), stop(), the destructor, and cardServiceLost() and pcscAvailable(), which
//   the card and monitor threads queue here; card handling starts and ends on main only;
// - card: the card event handlers (sendCard, announceReader), which build each message and
//   hand it straight to the server thread;
// - server: greetClient(), called as each client's WebSocket opens.
// knownReaders is the one thing the card and server threads share; readersMutex guards it.
class WebSocketServiceCommon : public QObject
{
    Q_OBJECT

public:
    explicit WebSocketServiceCommon(QObject* parent = nullptr);
    // Ends the threads that still run.
    ~WebSocketServiceCommon() override;

    // False when the service cannot serve (no certificate, port taken); also once stopped.
    bool start();
    // Ends every thread and saves the settings. Only the first call does anything.
    void stop();

private:
    void startCardHandling();
    void endCardHandling();
    void startMonitor();
    void cardServiceLost();
    void pcscAvailable();
    void greetClient(const ConnectionContext& context);
    void announceReader(const QString& name, bool connected);

    // Declared first so it goes last: its endpoint and the connections it still holds are
    // then released rather than abandoned.
    std::unique_ptr<ServerThread> serverThread;
    std::unique_ptr<WorkerThread<SmartCardController>> card;
    std::unique_ptr<WorkerThread<PCSCMonitor>> monitor;
    bool stopped = false;

    // The readers clients have been told of. Held while the list changes and its broadcast is
    // handed to the server, and while a greeting is built and handed over: the server keeps
    // that order, so a new client hears of each reader once, in its greeting or afterwards.
    std::mutex readersMutex;
    QStringList knownReaders;
};
