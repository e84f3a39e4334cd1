#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <openssl/ssl.h>

// A wss client with every step in the test's hands, for clients that misbehave: blocking
// OpenSSL on a plain socket, TLS 1.2, no certificate check. Every wait is bounded.
class RawTlsClient
{
public:
    RawTlsClient();
    ~RawTlsClient();
    RawTlsClient(const RawTlsClient&) = delete;
    RawTlsClient& operator=(const RawTlsClient&) = delete;

    bool connectTcp(quint16 port);
    // Offers only these TLS 1.2 suites when given; false when the server refuses them all.
    bool startTls(const char* cipherList = nullptr);
    bool connect(quint16 port) { return connectTcp(port) && startTls(); }
    QByteArray negotiatedCipher() const;

    // Sends `request` and returns the status code of the server's answer, 0 when none came.
    int handshake(const QByteArray& request);
    // A standard WebSocket upgrade; true on 101.
    bool upgrade();
    // A masked client frame. `announced` is the length put in the header when not -1.
    bool sendFrame(int opcode, const QByteArray& payload, qint64 announced = -1);
    bool write(const QByteArray& bytes);
    // Reads and discards until the server ends the connection; false if it has not after
    // `timeoutMs`.
    bool waitForClose(int timeoutMs = 30000);

private:
    void setTimeouts(int timeoutMs);

    int fd = -1;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;
};
