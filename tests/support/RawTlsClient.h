#pragma once

#include <QByteArray>
#include <QList>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>

using SessionPtr = std::unique_ptr<SSL_SESSION, void (*)(SSL_SESSION*)>;

// A wss client with every step in the test's hands, for clients that misbehave: blocking
// OpenSSL on a plain socket, TLS 1.2, no certificate check. Every wait is bounded.
class RawTlsClient
{
public:
    // Writing to a connection the server has dropped must fail, not end the test.
    RawTlsClient() { std::signal(SIGPIPE, SIG_IGN); }
    ~RawTlsClient()
    {
        if (ssl)
            SSL_free(ssl);
        if (context)
            SSL_CTX_free(context);
        if (fd >= 0)
            ::close(fd);
    }
    RawTlsClient(const RawTlsClient&) = delete;
    RawTlsClient& operator=(const RawTlsClient&) = delete;

    bool connectTcp(quint16 port)
    {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0)
            return false;
        setTimeouts(30000);
        // Small and fixed, so that a client that stops reading soon stops taking the server's data.
        const int receiveBuffer = 8192;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }

    // Offers `resume` when given; without tickets, a session can only resume by its ID.
    bool startTls(SSL_SESSION* resume = nullptr, bool tickets = true)
    {
        context = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
        if (!tickets)
            SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        ssl = SSL_new(context);
        SSL_set_fd(ssl, fd);
        if (resume)
            SSL_set_session(ssl, resume);
        return SSL_connect(ssl) == 1;
    }
    bool connect(quint16 port) { return connectTcp(port) && startTls(); }

    // The TLS goodbye: a session whose connection just dropped is never offered again.
    void closeTls() { SSL_shutdown(ssl); }
    SessionPtr session() const { return SessionPtr(SSL_get1_session(ssl), SSL_SESSION_free); }
    bool resumed() const { return SSL_session_reused(ssl) == 1; }
    // SHA-256 of the DER certificate of the session, as TestCertificate::sha256() has it.
    QByteArray peerSha256() const
    {
        X509* cert = SSL_get0_peer_certificate(ssl);
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (!cert || X509_digest(cert, EVP_sha256(), digest, &length) != 1)
            return {};
        return QByteArray(reinterpret_cast<const char*>(digest), int(length));
    }

    bool write(const QByteArray& bytes)
    {
        return !bytes.isEmpty() && SSL_write(ssl, bytes.constData(), bytes.size()) == bytes.size();
    }

    // Sends `request` and returns the server's answer: until the end of its headers when
    // `headersOnly`, else all it sends until it ends the connection.
    QByteArray exchange(const QByteArray& request, bool headersOnly = false)
    {
        QByteArray answer;
        char buffer[4096];
        int got = 0;
        if (write(request))
            while (!(headersOnly && answer.contains("\r\n\r\n")) && (got = SSL_read(ssl, buffer, sizeof buffer)) > 0)
                answer.append(buffer, got);
        return answer;
    }
    // The status code of the server's answer to `request`, 0 when none came.
    int handshake(const QByteArray& request)
    {
        const QList<QByteArray> statusLine = exchange(request, true).split('\r').first().split(' ');
        return statusLine.size() >= 2 ? statusLine[1].toInt() : 0;
    }

    // A standard WebSocket upgrade; upgrade() sends it and is true on 101.
    static inline const QByteArray upgradeRequest =
        "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    bool upgrade() { return handshake(upgradeRequest) == 101; }

    // A masked client frame. `announced` is the length put in the header when not -1.
    bool sendFrame(int opcode, const QByteArray& payload, qint64 announced = -1)
    {
        const quint64 length = announced < 0 ? quint64(payload.size()) : quint64(announced);
        QByteArray frame(1, char(0x80 | opcode));
        if (length < 126) {
            frame.append(char(0x80 | length));
        } else {
            frame.append(char(0x80 | 127));
            for (int shift = 56; shift >= 0; shift -= 8)
                frame.append(char((length >> shift) & 0xff));
        }
        // A zero masking key: the payload goes out as it is.
        return write(frame + QByteArray(4, '\0') + payload);
    }

    // The payload of the server's next frame (unmasked, not fragmented); nothing when none came.
    std::optional<QByteArray> readFrame()
    {
        QByteArray header;
        if (!readExactly(2, header))
            return std::nullopt;
        quint64 length = quint8(header[1]) & 0x7f;
        const int extended = length == 126 ? 2 : length == 127 ? 8 : 0;
        if (extended > 0) {
            if (!readExactly(extended, header))
                return std::nullopt;
            length = 0;
            for (int i = 2; i < 2 + extended; ++i)
                length = (length << 8) | quint8(header[i]);
        }
        QByteArray payload;
        if (!readExactly(int(length), payload))
            return std::nullopt;
        return payload;
    }

    // Reads and discards until the server ends the connection; false if it has not after
    // `timeoutMs`.
    bool waitForClose(int timeoutMs = 30000)
    {
        setTimeouts(timeoutMs);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        char buffer[4096];
        int got = 0;
        while ((got = SSL_read(ssl, buffer, sizeof buffer)) > 0 && std::chrono::steady_clock::now() < deadline) {
        }
        // A receive time-out, or data still coming, means it is still open.
        const int error = SSL_get_error(ssl, got);
        return got <= 0 && error != SSL_ERROR_WANT_READ && !(error == SSL_ERROR_SYSCALL && errno == EAGAIN);
    }

private:
    bool readExactly(int count, QByteArray& into)
    {
        const int wanted = into.size() + count;
        char buffer[4096];
        while (into.size() < wanted) {
            const int got = SSL_read(ssl, buffer, std::min(int(sizeof buffer), wanted - into.size()));
            if (got <= 0)
                return false;
            into.append(buffer, got);
        }
        return true;
    }

    void setTimeouts(int timeoutMs)
    {
        timeval limit{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }

    int fd = -1;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;
};
