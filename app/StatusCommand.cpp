#include "StatusCommand.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>
#include <QTextStream>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

namespace {

// Loopback: an answer takes milliseconds; a service that has not answered after this is stuck.
const std::chrono::seconds timeout(5);
// The health JSON is a few hundred bytes; anything far larger is not it.
const int maxAnswerBytes = 64 * 1024;

// One blocking TLS connection, released whichever way the exchange ends.
struct TlsConnection
{
    int fd = -1;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;

    TlsConnection() = default;
    TlsConnection(const TlsConnection&) = delete;
    TlsConnection& operator=(const TlsConnection&) = delete;
    ~TlsConnection()
    {
        if (ssl)
            SSL_free(ssl);
        if (context)
            SSL_CTX_free(context);
        if (fd >= 0)
            ::close(fd);
    }
};

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

QString tlsError()
{
    const unsigned long code = ERR_get_error();
    return code ? QString::fromLatin1(ERR_reason_error_string(code)) : QStringLiteral("connection closed");
}

bool isHealth(const QJsonObject& health)
{
    const QString pcsc = health.value(QLatin1String("pcsc")).toString();
    return health.value(QLatin1String("version")).isString() && (pcsc == QLatin1String("up") || pcsc == QLatin1String("down"))
           && health.value(QLatin1String("readers")).isArray();
}

QString orNone(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("none") : text;
}

} // namespace

StatusCommand::StatusCommand(quint16 port) : port(port) {}

StatusCommand::Result StatusCommand::run() const
{
    // A service that drops the connection mid-request must end in a message, not a signal.
    std::signal(SIGPIPE, SIG_IGN);
    QString reason;
    const QJsonObject health = QJsonDocument::fromJson(fetch(reason)).object();
    if (reason.isEmpty() && !isHealth(health))
        reason = QStringLiteral("the answer is not the service's health");
    if (!reason.isEmpty()) {
        QTextStream(stderr) << "tiv-rfid-svc: no health from https://127.0.0.1:" << port << "/health: " << reason
                            << '\n';
        return NotServing;
    }
    return report(health);
}

QByteArray StatusCommand::fetch(QString& reason) const
{
    TlsConnection connection;
    connection.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection.fd < 0) {
        reason = systemError();
        return {};
    }
    // On Linux the send time-out bounds connect() as well.
    const timeval limit{static_cast<time_t>(timeout.count()), 0};
    ::setsockopt(connection.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(connection.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(connection.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        reason = systemError();
        return {};
    }

    // The service's certificate is usually self-signed, and on loopback there is no one in
    // between to check it against.
    connection.context = SSL_CTX_new(TLS_client_method());
    connection.ssl = connection.context ? SSL_new(connection.context) : nullptr;
    if (!connection.ssl || !SSL_set_fd(connection.ssl, connection.fd) || SSL_connect(connection.ssl) != 1) {
        reason = QStringLiteral("TLS handshake failed (%1)").arg(tlsError());
        return {};
    }
    const QByteArray request = "GET /health HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
                               + "\r\nUser-Agent: tiv-rfid-svc --status\r\nConnection: close\r\n\r\n";
    if (SSL_write(connection.ssl, request.constData(), request.size()) != request.size()) {
        reason = QStringLiteral("sending the request failed (%1)").arg(tlsError());
        return {};
    }

    // The service closes the connection after its answer.
    QByteArray answer;
    char buffer[4096];
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int got = 0;
    while (answer.size() < maxAnswerBytes && std::chrono::steady_clock::now() < deadline
           && (got = SSL_read(connection.ssl, buffer, sizeof buffer)) > 0)
        answer.append(buffer, got);

    const int headerEnd = answer.indexOf("\r\n\r\n");
    const QByteArray statusLine = answer.left(answer.indexOf("\r\n"));
    if (headerEnd < 0) {
        reason = answer.isEmpty() ? QStringLiteral("no answer") : QStringLiteral("an incomplete answer");
        return {};
    }
    if (statusLine.split(' ').value(1) != "200") {
        reason = QStringLiteral("the answer was \"%1\"").arg(QString::fromLatin1(statusLine));
        return {};
    }
    return answer.mid(headerEnd + 4);
}

StatusCommand::Result StatusCommand::report(const QJsonObject& health)
{
    const bool pcscUp = health.value(QLatin1String("pcsc")).toString() == QLatin1String("up");
    QStringList readers;
    for (const QJsonValue& reader : health.value(QLatin1String("readers")).toArray())
        readers << reader.toString();

    QTextStream out(stdout);
    out << "tiv-rfid-svc " << health.value(QLatin1String("version")).toString() << ": serving, PC/SC "
        << (pcscUp ? "up" : "down") << " since " << health.value(QLatin1String("pcscSince")).toString() << '\n'
        << "readers: " << orNone(readers.join(QLatin1String(", "))) << '\n'
        << "clients: " << health.value(QLatin1String("clients")).toInt() << '\n'
        << "last card event: " << orNone(health.value(QLatin1String("lastCardEvent")).toString()) << '\n';
    return pcscUp && !readers.isEmpty() ? Healthy : Degraded;
}
