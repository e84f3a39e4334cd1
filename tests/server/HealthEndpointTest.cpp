#include "HttpAnswer.h"
#include "RawTlsClient.h"
#include "RunningServer.h"

namespace {

const QByteArray healthJson = R"({"pcsc":"up","readers":["Desk 1"]})";
const QByteArray kiosk = "https://kiosk.example:8443";

// What the endpoint answered every plain HTTP request with before it served /health.
const QByteArray upgradeRequired = "HTTP/1.1 426 Upgrade Required\r\nServer: WebSocket++/0.8.2\r\n\r\n";

class HealthServer : public RunningServer
{
protected:
    HealthServer()
    {
        allowedOrigins = QStringList{"https://Kiosk.Example:8443/"};
        healthSource = [] { return healthJson; };
    }

    QByteArray exchange(const QByteArray& requestLine, const QByteArray& headers = {})
    {
        RawTlsClient client;
        if (!client.connect(port))
            return "<no TLS connection>";
        return client.exchange(requestLine + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n");
    }
    HttpAnswer request(const QByteArray& requestLine, const QByteArray& headers = {})
    {
        return HttpAnswer(exchange(requestLine, headers));
    }
};

TEST_F(HealthServer, HealthGoesToListedPagesAndLocalProgramsAndNotToOtherPages)
{
    // No Origin: a program on this machine, let in whatever the list says.
    const HttpAnswer local = request("GET /health");
    EXPECT_EQ(local.status, 200);
    EXPECT_EQ(local.header("Content-Type"), "application/json");
    EXPECT_EQ(local.header("Cache-Control"), "no-store");
    EXPECT_EQ(local.body, healthJson);
    EXPECT_FALSE(local.has("Access-Control-Allow-Origin"));

    // A listed page gets its own origin back, as it sent it; a query is no other path.
    const HttpAnswer page = request("GET /health?t=1", "Origin: " + kiosk + "\r\n");
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.body, healthJson);
    EXPECT_EQ(page.header("Access-Control-Allow-Origin"), kiosk);
    EXPECT_EQ(page.header("Vary"), "Origin");

    const HttpAnswer stranger = request("GET /health", "Origin: https://evil.test\r\n");
    EXPECT_EQ(stranger.status, 403);
    EXPECT_TRUE(stranger.body.isEmpty());
    EXPECT_FALSE(stranger.has("Access-Control-Allow-Origin"));
    EXPECT_TRUE(logged("Refused health request from origin \"https://evil.test\""));
}

TEST_F(HealthServer, PreflightAdmitsListedPagesAndGrantsLocalNetworkAccessOnlyWhenAsked)
{
    const QByteArray preflight = "Origin: " + kiosk + "\r\nAccess-Control-Request-Method: GET\r\n";
    const HttpAnswer asking = request("OPTIONS /health", preflight + "Access-Control-Request-Private-Network: true\r\n"
                                                                     "Access-Control-Request-Local-Network: true\r\n");
    EXPECT_EQ(asking.status, 204);
    EXPECT_EQ(asking.header("Access-Control-Allow-Origin"), kiosk);
    EXPECT_EQ(asking.header("Access-Control-Allow-Methods"), "GET");
    EXPECT_EQ(asking.header("Access-Control-Max-Age"), "600");
    EXPECT_EQ(asking.header("Vary"), "Origin");
    EXPECT_EQ(asking.header("Access-Control-Allow-Private-Network"), "true");
    EXPECT_EQ(asking.header("Access-Control-Allow-Local-Network"), "true");

    const HttpAnswer plain = request("OPTIONS /health", preflight);
    EXPECT_EQ(plain.status, 204);
    EXPECT_EQ(plain.header("Access-Control-Allow-Origin"), kiosk);
    EXPECT_FALSE(plain.has("Access-Control-Allow-Private-Network"));
    EXPECT_FALSE(plain.has("Access-Control-Allow-Local-Network"));

    const HttpAnswer stranger = request("OPTIONS /health", "Origin: https://evil.test\r\nAccess-Control-Request-Method: GET\r\n"
                                                           "Access-Control-Request-Private-Network: true\r\n");
    EXPECT_EQ(stranger.status, 403);
    EXPECT_FALSE(stranger.has("Access-Control-Allow-Private-Network"));
}

TEST_F(HealthServer, EveryOtherRequestGetsTheAnswerItGotBefore)
{
    const std::pair<QByteArray, QByteArray> others[] = {
        {"GET /", ""},
        {"GET /healthz", ""},
        {"HEAD /health", ""},
        {"POST /health", "Content-Length: 0\r\n"},
        {"OPTIONS /health", "Origin: " + kiosk + "\r\n"}, // no preflight without a method asked for
        {"OPTIONS /", "Origin: " + kiosk + "\r\nAccess-Control-Request-Method: GET\r\n"},
    };
    for (const auto& [requestLine, headers] : others)
        EXPECT_EQ(exchange(requestLine, headers), upgradeRequired) << requestLine.constData();

    // WebSocket clients are unaffected.
    RawTlsClient webSocket;
    ASSERT_TRUE(webSocket.connect(port));
    EXPECT_TRUE(webSocket.upgrade());
}

} // namespace
