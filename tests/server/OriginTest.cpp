#include "RunningServer.h"

class KioskOnlyServer : public RunningServer
{
protected:
    // Written the way people edit settings files: spaces, capitals, a trailing slash, a blank
    // entry, and one without its scheme.
    KioskOnlyServer()
    {
        allowedOrigins = QStringList{" HTTPS://Kiosk.Example:8443/ ", "", "http://localhost:3000", "localhost:3000"};
    }
};

TEST_F(KioskOnlyServer, OnlyListedPagesAndClientsWithoutOriginGetIn)
{
    EXPECT_EQ(LogCapture::instance().count("will never match a browser's Origin header: \"localhost:3000\""), 1);

    TestWsClient kiosk, devPage, tool;
    kiosk.setOrigin("https://kiosk.example:8443");
    kiosk.setSubprotocols({"tiv-rfid.2"});
    devPage.setOrigin("http://localhost:3000");
    for (TestWsClient* client : {&kiosk, &devPage, &tool})
        ASSERT_TRUE(client->connect(port)) << client->lastError().toStdString();
    EXPECT_EQ(kiosk.subprotocol(), "tiv-rfid.2");

    // Near misses of a listed origin, a page from elsewhere, and a sandboxed page.
    for (const QString origin : {"http://kiosk.example:8443", "https://kiosk.example",
                                 "https://kiosk.example:8443.evil.test", "https://evil.test", "null"}) {
        TestWsClient stranger;
        stranger.setOrigin(origin);
        // Asking for the newer protocol changes nothing about who gets in.
        stranger.setSubprotocols({"tiv-rfid.2"});
        SCOPED_TRACE(origin.toStdString());
        EXPECT_FALSE(stranger.connect(port));
        EXPECT_EQ(stranger.httpStatus(), 403);
        EXPECT_EQ(LogCapture::instance().count("Refused WebSocket connection from origin \"" + origin + "\""), 1);
    }

    // The server handles events in order, so once this text is seen every refused handshake has
    // been handled, and any announcement it wrongly caused has arrived.
    ASSERT_TRUE(tool.send("last"));
    ASSERT_TRUE(logged("ServerThread::messageReceived: \"last\""));
    EXPECT_EQ(announcedClients().size(), 3u) << "a refused handshake was announced as a client";
}

// No setting, and a setting of nothing but blanks, both mean: no restriction.
class ServerWithoutAllowList : public RunningServer
{
protected:
    ServerWithoutAllowList() { allowedOrigins = QStringList{" ", ""}; }
};

TEST_F(ServerWithoutAllowList, LetsEveryOriginIn)
{
    TestWsClient page;
    page.setOrigin("https://anywhere.test");
    EXPECT_TRUE(page.connect(port)) << page.lastError().toStdString();
}
