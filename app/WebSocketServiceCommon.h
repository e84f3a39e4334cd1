#pragma once

#include "ConnectionContext.h"

#include <QObject>
#include <QString>

#include <mutex>

class PCSCMonitor;
class QJsonObject;
class QThread;
class ServerThread;
class SmartCardController;

// Owns the running service: starts the WebSocket server thread and card handling (or a
// monitor that waits for the PC/SC service), turns card events into client messages, greets
// new clients, restarts card handling after fatal PC/SC errors and stops everything in order.
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

public slots:
    void cardReaderError(unsigned int code, QString message);

private:
    bool attemptCardHandling();
    void greetClient(const ConnectionContext& context);
    void sendToAll(const QJsonObject& message);
    void sendToClient(const QJsonObject& message, const ConnectionContext& context);
    void stopMonitor();
    void stopCardThread();

    ServerThread* serverThread = nullptr;
    SmartCardController* cardObject = nullptr;
    QThread* cardThread = nullptr;
    PCSCMonitor* pcscMonitor = nullptr;
    QThread* monitorThread = nullptr;
    // Serialises a card-handling attempt against the stop sequence. A standard lock, because
    // the thread sanitizer cannot see through Qt's.
    std::mutex mutex;
};
