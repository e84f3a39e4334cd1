#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <memory>
#include <optional>

// A real wss client running on an asio thread of its own; one connection per instance.
// The server's certificate is not verified. All members may be called from any thread.
class TestWsClient
{
public:
    enum class TlsVersion { Any, V1_1, V1_2, V1_3 };

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

    // SHA-256 of the DER certificate the server presented; empty before the connection is open.
    QByteArray peerCertificateSha256() const;
    // HTTP status of the server's handshake answer: 101 once open, e.g. 403 when refused,
    // 0 when none arrived (a failed TLS handshake).
    int httpStatus() const;
    // Why the connection failed or closed, as the library put it.
    QString lastError() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};
