#pragma once

#include <QObject>

// Starts, wires and stops the server and card handling of the service.
class WebSocketServiceCommon : public QObject
{
    Q_OBJECT

public:
    explicit WebSocketServiceCommon(QObject* parent = nullptr);
    ~WebSocketServiceCommon() override;

    bool start();
    void stop();

    void loadSettings();
    void saveSettings();
};
