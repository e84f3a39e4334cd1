#pragma once

#include "ConnectionContext.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <mutex>

class PCSCMonitor;
class QThread;
class ServerThread;
class SmartCardController;

// Owns the running service: starts the WebSocket server thread and card handling (or a
// monitor that waits for the PC/SC service), turns card events into client messages, greets
// new clients with the readers known at that moment, starts card handling afresh after the
// PC/SC service was lost and stops everything in order. Card handling is started and ended
// on the thread that calls start(), and by nothing else.
class WebSocketServiceCommon : public QObject
{
    Q_OBJECT

public:
    explicit WebSocketServiceCommon(QObject* parent = nullptr);
    ~WebSocketServiceCommon() override;

    bool start();
    void stop();
    void initCardHandling();

    void loadSettings();
    void saveSettings();

private:
    void connectCardEvents();
    void cardServiceLost();
    void pcscAvailable();
    void startMonitor();
    void stopMonitor();
    void stopCardThread();
    void greetClient(const ConnectionContext& context);
    void announceReader(const QString& name, bool connected);
    void sendToAll(const QString& message);

    ServerThread* serverThread = nullptr;
    SmartCardController* cardObject = nullptr;
    QThread* cardThread = nullptr;
    PCSCMonitor* pcscMonitor = nullptr;
    QThread* monitorThread = nullptr;
    bool stopped = false;

    // The readers clients have been told of. Held while the list changes and its broadcast is
    // handed to the server, and while a greeting is built and handed over: the server keeps
    // that order, so a new client hears of each reader once, in its greeting or afterwards.
    std::mutex readersMutex;
    QStringList knownReaders;
};
