#pragma once

#include "WssClientGroup.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <memory>
#include <optional>

// One wss connection of its own, on a WssClientGroup of one, with its messages queued for
// whoever asks. The server's certificate is not verified. All members may be called from any
// thread.
class TestWsClient
{
public:
    using TlsVersion = WssClientGroup::TlsVersion;

    explicit TestWsClient(TlsVersion tls = TlsVersion::Any);
    ~TestWsClient(); // closes nothing politely: stops the asio thread and drops the socket
    TestWsClient(const TestWsClient&) = delete;
    TestWsClient& operator=(const TestWsClient&) = delete;

    // Sends this Origin header with the handshake, as a browser would; none by default.
    void setOrigin(const QString& origin);
    // True once the WebSocket is open; false when the connection failed or took too long.
    bool connect(quint16 port, int timeoutMs = 15000);
    // The next received text message, in arrival order.
    std::optional<QString> nextMessage(int timeoutMs = 15000);
    bool send(const QString& text);
    void close();   // clean WebSocket close
    void drop();    // vanish: shut the TCP socket down without a close frame
    bool waitClosed(int timeoutMs = 15000);

    // See WssClientGroup.
    QByteArray peerCertificateSha256() const;
    int httpStatus() const;
    QString lastError() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};
