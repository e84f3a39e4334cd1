#include "RawTlsClient.h"
#include "RunningServer.h"

namespace {

const QByteArray healthJson = R"({"pcsc":"up","readers":["Desk 1"]})";
const QByteArray kiosk = "https://kiosk.example:8443";
const QByteArray preflight = "Access-Control-Request-Method: GET\r\n";

// What the endpoint answered every plain HTTP request with before it served /health.
const QByteArray upgradeRequired = "HTTP/1.1 426 Upgrade Required\r\nServer: WebSocket++/0.8.2\r\n\r\n";

// The library writes each header as "Name: value" on a line of its own.
bool hasHeader(const QByteArray& answer, const QByteArray& header)
{
    return answer.left(answer.indexOf("\r\n\r\n") + 2).contains("\r\n" + header + "\r\n");
}

class HealthServer : public RunningServer
{
protected:
    HealthServer()
    {
        allowedOrigins = QStringList{"https://Kiosk.Example:8443/"};
        healthSource = [] { return healthJson; };
    }

    QByteArray request(const QByteArray& requestLine, const QByteArray& headers = {})
    {
        RawTlsClient client;
        if (!client.connect(port))
            return "<no TLS connection>";
        return client.exchange(requestLine + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n");
    }
};

TEST_F(HealthServer, HealthGoesToListedPagesAndLocalProgramsAndNotToOtherPages)
{
    // No Origin: a program on this machine, let in whatever the list says.
    const QByteArray local = request("GET /health");
    EXPECT_TRUE(local.startsWith("HTTP/1.1 200 ")) << local.constData();
    EXPECT_TRUE(hasHeader(local, "Content-Type: application/json") && hasHeader(local, "Cache-Control: no-store"));
    EXPECT_TRUE(local.endsWith("\r\n\r\n" + healthJson));
    EXPECT_FALSE(local.contains("Access-Control-Allow-Origin"));

    // A listed page gets its own origin back, as it sent it; a query is no other path.
    const QByteArray page = request("GET /health?t=1", "Origin: " + kiosk + "\r\n");
    EXPECT_TRUE(page.endsWith("\r\n\r\n" + healthJson)) << page.constData();
    EXPECT_TRUE(hasHeader(page, "Access-Control-Allow-Origin: " + kiosk) && hasHeader(page, "Vary: Origin"));

    EXPECT_EQ(request("GET /health", "Origin: https://evil.test\r\n"),
              "HTTP/1.1 403 Forbidden\r\nServer: WebSocket++/0.8.2\r\n\r\n");
    EXPECT_TRUE(logged("Refused health request from origin \"https://evil.test\""));
}

TEST_F(HealthServer, PreflightAdmitsListedPagesAndGrantsLocalNetworkAccessOnlyWhenAsked)
{
    const QByteArray asking = request("OPTIONS /health", "Origin: " + kiosk + "\r\n" + preflight +
                                                             "Access-Control-Request-Private-Network: true\r\n"
                                                             "Access-Control-Request-Local-Network: true\r\n");
    EXPECT_TRUE(asking.startsWith("HTTP/1.1 204 ")) << asking.constData();
    for (const QByteArray& header :
         {"Access-Control-Allow-Origin: " + kiosk, QByteArray("Access-Control-Allow-Methods: GET"),
          QByteArray("Access-Control-Max-Age: 600"), QByteArray("Vary: Origin"),
          QByteArray("Access-Control-Allow-Private-Network: true"), QByteArray("Access-Control-Allow-Local-Network: true")})
        EXPECT_TRUE(hasHeader(asking, header)) << header.constData();

    const QByteArray plain = request("OPTIONS /health", "Origin: " + kiosk + "\r\n" + preflight);
    EXPECT_TRUE(plain.startsWith("HTTP/1.1 204 ") && hasHeader(plain, "Access-Control-Allow-Origin: " + kiosk));
    EXPECT_FALSE(plain.contains("Network")) << plain.constData();

    const QByteArray stranger = request("OPTIONS /health", "Origin: https://evil.test\r\n" + preflight +
                                                               "Access-Control-Request-Private-Network: true\r\n");
    EXPECT_TRUE(stranger.startsWith("HTTP/1.1 403 ") && !stranger.contains("Access-Control")) << stranger.constData();
}

TEST_F(HealthServer, EveryOtherRequestGetsTheAnswerItGotBefore)
{
    const std::pair<QByteArray, QByteArray> others[] = {
        {"GET /", ""},
        {"GET /healthz", ""},
        {"HEAD /health", ""},
        {"POST /health", "Content-Length: 0\r\n"},
        {"OPTIONS /health", "Origin: " + kiosk + "\r\n"}, // no preflight without a method asked for
        {"OPTIONS /", "Origin: " + kiosk + "\r\n" + preflight},
    };
    for (const auto& [requestLine, headers] : others)
        EXPECT_EQ(request(requestLine, headers), upgradeRequired) << requestLine.constData();

    // WebSocket clients are unaffected.
    RawTlsClient webSocket;
    ASSERT_TRUE(webSocket.connect(port));
    EXPECT_TRUE(webSocket.upgrade());
}

} // namespace
