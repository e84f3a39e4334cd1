#pragma once

#include "WorkerThread.h"

#include <QObject>

#include <chrono>
#include <functional>
#include <memory>

class CardEventPublisher;
class PCSCMonitor;
class ServiceHealth;
class ServerThread;
class SmartCardController;

// The service controller: starts the WebSocket server thread and card handling (or, while
// PC/SC is away, a monitor that waits for it), wires card events and new clients to the
// publisher that tells clients of them, starts card handling afresh after PC/SC was lost,
// and stops everything in order.
//
// Threads:
// - main: start(), stop(), the destructor, and cardServiceLost() and pcscAvailable(), which
//   the card and monitor threads queue here; card handling starts and ends on main only;
// - card: the card loop's signals, handed straight to the publisher, which hands each text
//   to the server thread;
// - server: the greeting of each client as its WebSocket opens, built by the publisher; the
//   count of admitted clients and each GET /health, written to and read from the health record.
// The publisher and the health record are what the card and server threads share; each
// guards itself.
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

    // Kept current from the moment of construction; lives as long as the service.
    ServiceHealth& health() const { return *healthState; }

    // Whichever runs of the card loop and the PC/SC monitor calls `beat` at least every `every`
    // (the card loop caps its waits at that), and main does as card handling changes hands.
    // Set before start().
    void setCardHeartbeat(std::function<void()> beat, std::chrono::milliseconds every);
    // Runs `work` on the server thread; false when no server runs.
    bool postToServerThread(std::function<void()> work);

signals:
    // start() is about to return true: the port listens and card handling (or its monitor) runs.
    void serving();
    // stop() has begun.
    void stopping();

private:
    void startCardHandling();
    void endCardHandling();
    void startMonitor();
    void cardServiceLost();
    void pcscAvailable();
    void cardBeat();

    std::unique_ptr<ServiceHealth> healthState;
    // Declared first but one so they go last: the server thread may greet a client until it ends, and
    // its endpoint and the connections it still holds are then released rather than abandoned.
    std::unique_ptr<CardEventPublisher> publisher;
    std::unique_ptr<ServerThread> serverThread;
    std::unique_ptr<WorkerThread<SmartCardController>> card;
    std::unique_ptr<WorkerThread<PCSCMonitor>> monitor;
    std::function<void()> cardHeartbeat;
    std::chrono::milliseconds cardBeatInterval{0};
    bool stopped = false;
};
