#include "RawTlsClient.h"
#include "RunningServer.h"

#include <chrono>
#include <memory>
#include <thread>

static const QString dropped = "it does not read";

TEST_F(RunningServer, AClientThatStopsReadingIsDroppedAndTheOthersKeepReceiving)
{
    TestWsClient reader;
    ASSERT_TRUE(reader.connect(port));
    RawTlsClient pinger, sleeper;
    ASSERT_TRUE(pinger.connect(port) && pinger.upgrade());
    ASSERT_TRUE(sleeper.connect(port) && sleeper.upgrade());
    ASSERT_TRUE(waitForClients(3));

    // Every ping queues a pong that this client never reads.
    const int enough = 2000000;
    int pings = 0;
    while (pings < enough && pinger.sendFrame(0x9, QByteArray(125, 'p')))
        ++pings;
    EXPECT_LT(pings, enough) << "the pinging client was never dropped";
    ASSERT_TRUE(logged(dropped));

    // Broadcasts pile up for the client that does not read, until it too is dropped; the one
    // that reads gets each in turn.
    const QString large(100 * 1024, QLatin1Char('b'));
    int broadcasts = 0;
    while (broadcasts < 200 && LogCapture::instance().count(dropped) < 2) {
        thread->sendToAll(large);
        ++broadcasts;
        ASSERT_EQ(reader.nextMessage(), large);
    }
    EXPECT_EQ(LogCapture::instance().count(dropped), 2);
    EXPECT_TRUE(sleeper.waitForClose());
    thread->sendToAll("still serving");
    EXPECT_EQ(reader.nextMessage(), QStringLiteral("still serving"));
}

TEST_F(RunningServer, AnOversizedMessageClosesItsSenderAloneAndLongTextsAreLoggedShort)
{
    TestWsClient reader;
    ASSERT_TRUE(reader.connect(port));
    RawTlsClient hog;
    ASSERT_TRUE(hog.connect(port) && hog.upgrade());
    // Announces 32 MB and sends a little of it: refused on the header, nothing reserved.
    ASSERT_TRUE(hog.sendFrame(0x1, QByteArray(1000, 'x'), 32000000));
    EXPECT_TRUE(hog.waitForClose());
    EXPECT_TRUE(logged("it sent a message of more than 65536 bytes."));
    thread->sendToAll("still serving");
    EXPECT_EQ(reader.nextMessage(), QStringLiteral("still serving"));

    ASSERT_TRUE(reader.send(QString(1000, QLatin1Char('y'))));
    ASSERT_TRUE(logged("(1000 bytes in all)"));
    EXPECT_EQ(LogCapture::instance().count("yyyy"), 1);
    EXPECT_EQ(LogCapture::instance().count(QString(201, QLatin1Char('y'))), 0);
}

TEST_F(RunningServer, PreStandardDraftHandshakesAreRefusedWithUpgradeRequired)
{
    // hixie-76: two number keys and eight key bytes after the headers, no version header.
    const QByteArray draft76 = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Upgrade\r\nUpgrade: WebSocket\r\n"
                               "Sec-WebSocket-Key1: 4 @1  46546xW%0l 1 5\r\nSec-WebSocket-Key2: 12998 5 Y3 1  .P00\r\n"
                               "Origin: http://example.com\r\n\r\n^n:ds[4U";
    RawTlsClient draft;
    ASSERT_TRUE(draft.connect(port));
    EXPECT_EQ(draft.handshake(draft76), 426);
    EXPECT_TRUE(draft.waitForClose());

    RawTlsClient current;
    ASSERT_TRUE(current.connect(port));
    EXPECT_TRUE(current.upgrade());
    ASSERT_TRUE(waitForClients(1));
    EXPECT_EQ(announcedClients().size(), 1u);
}

TEST_F(RunningServer, AConnectionNotOpenFiveSecondsAfterItsAcceptIsClosedThoughEachHandshakeWasInTime)
{
    using namespace std::chrono_literals;
    const QByteArray& request = RawTlsClient::upgradeRequest;
    // About 3 s for TLS and 3.5 s for the upgrade: each within the library's own 5 s.
    RawTlsClient slow;
    ASSERT_TRUE(slow.connectTcp(port));
    std::this_thread::sleep_for(3s);
    ASSERT_TRUE(slow.startTls());
    const int pieces = 7;
    const int piece = request.size() / pieces + 1;
    for (int at = 0; at < request.size() && slow.write(request.mid(at, piece)); at += piece)
        std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(slow.waitForClose());
    EXPECT_TRUE(announcedClients().empty());
}

class CappedServer : public RunningServer
{
protected:
    CappedServer() { maxClients = 2; }
};

TEST_F(CappedServer, ConnectionsBeyondMaxClientsAreClosedBeforeTlsAndLoggedAtMostOnceASecond)
{
    TestWsClient first, second;
    ASSERT_TRUE(first.connect(port) && second.connect(port));
    const int tries = 20;
    for (int i = 0; i < tries; ++i) {
        RawTlsClient refused;
        ASSERT_TRUE(refused.connectTcp(port));
        EXPECT_FALSE(refused.startTls());
    }
    // Every refusal is counted in a line, and the lines are fewer than the refusals.
    const auto countedInLines = [] {
        int counted = 0;
        for (const QString& line : LogCapture::instance().lines("new WebSocket connection(s): 2 connections are open"))
            counted += line.section(QLatin1String("Refused "), 1).section(QLatin1Char(' '), 0, 0).toInt();
        return counted;
    };
    ASSERT_TRUE(waitUntil([&] { return countedInLines() == tries; })) << countedInLines();
    EXPECT_LT(LogCapture::instance().count("new WebSocket connection(s)"), tries);

    // A seat that frees is taken by the next client; the clients served are never disturbed.
    first.close();
    std::unique_ptr<TestWsClient> third;
    ASSERT_TRUE(waitUntil([&] {
        third = std::make_unique<TestWsClient>();
        return third->connect(port);
    }));
    ASSERT_TRUE(waitForClients(3));
    thread->sendToAll("still serving");
    for (TestWsClient* client : {&second, third.get()})
        EXPECT_EQ(client->nextMessage(), QStringLiteral("still serving"));
}
