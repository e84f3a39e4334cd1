#include "RawTlsClient.h"
#include "RunningServer.h"
#include "WssClientGroup.h"

#include <thread>

namespace {

class GreetingServer : public RunningServer
{
protected:
    GreetingServer() { greeting = QStringList{"reader A", "version"}; }
};

} // namespace

TEST_F(GreetingServer, EachClientGetsItsGreetingThenWhatIsSentInOrderFromAnyThread)
{
    TestWsClient a, b;
    ASSERT_TRUE(a.connect(port)) << a.lastError().toStdString();
    ASSERT_TRUE(waitForClients(1));
    ASSERT_TRUE(b.connect(port)) << b.lastError().toStdString();
    ASSERT_TRUE(waitForClients(2));

    // Called directly from the card thread; by name too, as the slots still may be. Admitting a
    // client again greets only that one, and it still gets each broadcast once.
    std::thread cardThread([&, first = announcedClients()[0]] {
        EXPECT_TRUE(QMetaObject::invokeMethod(thread.get(), "admitClient", Qt::DirectConnection,
                                              Q_ARG(ConnectionContext, first),
                                              Q_ARG(QStringList, QStringList{"only a"})));
        for (const char* text : {"one", "two", "three"})
            thread->sendToAll(text);
    });
    cardThread.join();
    EXPECT_EQ(receive(a, 6), QStringList({"reader A", "version", "only a", "one", "two", "three"}));
    EXPECT_EQ(receive(b, 5), QStringList({"reader A", "version", "one", "two", "three"}));
    EXPECT_EQ(announcedClients().size(), 2u);
}

TEST_F(GreetingServer, LargeAndSmallMessagesKeepTheirOrderThoughTheyTakeDifferentWays)
{
    // Every third message is larger than one TLS record and waits in the library's queue; the
    // small ones after it must not overtake it. The small receive buffer of this client lets
    // the server's socket fill now and then as well.
    RawTlsClient slow;
    ASSERT_TRUE(slow.connect(port) && slow.upgrade());
    ASSERT_TRUE(waitForClients(1));
    // Within the bound of unsent data of a client that reads, though all are queued at once.
    const int count = 90;
    const QString large(17000, QLatin1Char('x'));
    for (int i = 0; i < count; ++i)
        thread->sendToAll(QString::number(i) + QLatin1Char(' ')
                          + (i % 3 == 0 ? large : QStringLiteral("small")));

    EXPECT_EQ(slow.readFrame(), QByteArray("reader A"));
    EXPECT_EQ(slow.readFrame(), QByteArray("version"));
    for (int i = 0; i < count; ++i) {
        const std::optional<QByteArray> frame = slow.readFrame();
        ASSERT_TRUE(frame) << "message " << i << " never came";
        ASSERT_EQ(frame->left(frame->indexOf(' ')), QByteArray::number(i));
    }
}

TEST_F(GreetingServer, AStopWhileClientsStormInEndsPromptlyAndARestartListensAtOnce)
{
    // Connections at every stage of their handshakes, some of them queued for the handshake
    // thread, when the stop comes.
    WssClientGroup storm({});
    ASSERT_TRUE(storm.startCycling(port, 32));
    ASSERT_TRUE(waitUntil([&] { return storm.cycled().greeted >= 100; }));
    thread->stopServer();
    EXPECT_TRUE(thread->wait(10000));
    storm.stopCycling();
    TestWsClient late;
    EXPECT_FALSE(late.connect(port));

    // The stopped server's connections still hold the port, and a restart must listen at once.
    ServerThread again(port, cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
    again.start();
    ASSERT_TRUE(again.waitForInit());
    TestWsClient after;
    EXPECT_TRUE(after.connect(port)) << after.lastError().toStdString();
}
