#include "RunningServer.h"
#include "TestWsClient.h"

namespace {

const QString refused = QStringLiteral("Refused WebSocket connection from origin");

QString refusedLine(const QString& origin)
{
    return refused + QStringLiteral(" \"%1\"").arg(origin);
}

} // namespace

class KioskOnlyServer : public RunningServer
{
protected:
    // Written the way people edit settings files: spaces, capitals, a trailing slash, a stray
    // comma, and an entry without its scheme.
    KioskOnlyServer()
    {
        allowedOrigins = QStringList{QStringLiteral(" HTTPS://Kiosk.Example:8443/ "), QString(),
                                     QStringLiteral("http://localhost:3000"),
                                     QStringLiteral("localhost:3000")};
    }
};

TEST_F(KioskOnlyServer, OnlyListedPagesAndClientsWithoutOriginGetIn)
{
    EXPECT_EQ(logCapture().count(QStringLiteral("will never match a browser's Origin")), 1);
    EXPECT_TRUE(logCapture().contains(QStringLiteral("Origin header: \"localhost:3000\"")));

    TestWsClient kiosk, devPage, tool;
    kiosk.setOrigin(QStringLiteral("https://kiosk.example:8443"));
    devPage.setOrigin(QStringLiteral("http://localhost:3000"));
    for (TestWsClient* client : {&kiosk, &devPage, &tool}) {
        ASSERT_TRUE(client->connect(port)) << client->lastError().toStdString();
        EXPECT_EQ(client->httpStatus(), 101);
    }

    // Near misses of a listed origin, a page from elsewhere, and a sandboxed page.
    for (const char* origin : {"http://kiosk.example:8443", "https://kiosk.example",
                               "https://kiosk.example:8443.evil.test", "https://evil.test", "null"}) {
        TestWsClient stranger;
        stranger.setOrigin(QLatin1String(origin));
        EXPECT_FALSE(stranger.connect(port)) << origin;
        EXPECT_EQ(stranger.httpStatus(), 403) << origin;
        EXPECT_EQ(logCapture().count(refusedLine(QLatin1String(origin))), 1) << origin;
    }

    // The server handles events in order, so once this text is seen every refused handshake
    // has been too, and any announcement it wrongly caused has arrived.
    ASSERT_TRUE(tool.send(QStringLiteral("last")));
    ASSERT_TRUE(waitUntil([] {
        return logCapture().contains(QStringLiteral("ServerThread::messageReceived: \"last\""));
    }));
    EXPECT_EQ(announced.size(), 3u) << "a refused handshake was announced as a client";

    thread->sendToAll(QStringLiteral("badge"));
    for (TestWsClient* client : {&kiosk, &devPage, &tool})
        EXPECT_EQ(client->nextMessage(), QStringLiteral("badge"));
}

// No setting and a setting of nothing but separators both mean: no restriction.
class ServerWithoutAllowList : public RunningServer,
                               public ::testing::WithParamInterface<QStringList>
{
protected:
    ServerWithoutAllowList() { allowedOrigins = GetParam(); }
};

TEST_P(ServerWithoutAllowList, LetsEveryOriginIn)
{
    TestWsClient page;
    page.setOrigin(QStringLiteral("https://anywhere.test"));
    ASSERT_TRUE(page.connect(port)) << page.lastError().toStdString();
    ASSERT_TRUE(waitForClients(1));
    thread->sendToAll(QStringLiteral("badge"));
    EXPECT_EQ(page.nextMessage(), QStringLiteral("badge"));
    EXPECT_FALSE(logCapture().contains(refused));
}

INSTANTIATE_TEST_SUITE_P(EmptyOrBlank, ServerWithoutAllowList,
                         ::testing::Values(QStringList(),
                                           QStringList{QStringLiteral(" "), QString()}),
                         [](const ::testing::TestParamInfo<QStringList>& info) {
                             return std::string(info.param.isEmpty() ? "NoSetting" : "OnlyBlanks");
                         });
