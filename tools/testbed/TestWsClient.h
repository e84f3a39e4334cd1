#pragma once

#include "WssClientGroup.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

// One wss connection of its own, on a WssClientGroup of one, with its messages queued for
// whoever asks. The server's certificate is not verified. All members may be called from any
// thread.
class TestWsClient
{
public:
    using TlsVersion = WssClientGroup::TlsVersion;

    // Its end closes nothing politely: it stops the asio thread and drops the socket.
    explicit TestWsClient(TlsVersion tls = TlsVersion::Any);

    // Sends this Origin header with the handshake, as a browser would; none by default.
    void setOrigin(const QString& origin) { group.setOrigin(origin.toStdString()); }
    // Offers these WebSocket subprotocols at the handshake, in order; none by default.
    void setSubprotocols(const QStringList& names);
    // True once the WebSocket is open; false when the connection failed or took too long.
    bool connect(quint16 port, int timeoutMs = 15000) { return group.connect(port, 1, ms(timeoutMs)); }
    // The next received text message, in arrival order.
    std::optional<QString> nextMessage(int timeoutMs = 15000);
    bool send(const QString& text) { return group.send(0, text.toStdString()); }
    void close() { group.close(0); } // clean WebSocket close
    void drop() { group.drop(0); }   // vanish: shut the TCP socket down without a close frame

    // See WssClientGroup.
    QByteArray peerCertificateSha256() const { return QByteArray::fromStdString(group.peerCertificateSha256(0)); }
    int httpStatus() const { return group.httpStatus(0); }
    QString subprotocol() const { return QString::fromStdString(group.subprotocol(0)); }
    QString lastError() const { return QString::fromStdString(group.lastError()); }

private:
    using ms = std::chrono::milliseconds;
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<QString> messages;
    WssClientGroup group; // last: its thread ends before the queue goes
};
