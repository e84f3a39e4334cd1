#pragma once

#include <QObject>

class WebSocketServiceCommon;

// Owns the service for the process: adds daemonising and ends the event loop around the
// shared service logic.
class WebSocketServiceUnix : public QObject
{
    Q_OBJECT

public:
    explicit WebSocketServiceUnix(QObject* parent = nullptr);
    ~WebSocketServiceUnix() override;

    void start();
    void stop();
    bool daemonize();

    void loadSettings();
    void saveSettings();

private:
    WebSocketServiceCommon* service;
    bool stopped;
};
