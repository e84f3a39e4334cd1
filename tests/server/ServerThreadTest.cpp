#include "RunningServer.h"

#include <atomic>
#include <thread>

namespace {

// The next `count` messages, fewer if they stop coming.
QStringList receive(TestWsClient& client, int count)
{
    QStringList received;
    while (received.size() < count)
        if (const auto message = client.nextMessage())
            received << *message;
        else
            break;
    return received;
}

class GreetingServer : public RunningServer
{
protected:
    GreetingServer() { greeting = QStringList{"reader A", "version"}; }
};

class ManualAdmissionServer : public RunningServer
{
protected:
    ManualAdmissionServer() { autoAdmit = false; }
};

} // namespace

TEST_F(GreetingServer, EachClientGetsItsGreetingThenWhatIsSentInOrderFromAnyThread)
{
    TestWsClient a, b;
    ASSERT_TRUE(a.connect(port)) << a.lastError().toStdString();
    ASSERT_TRUE(waitForClients(1));
    ASSERT_TRUE(b.connect(port)) << b.lastError().toStdString();
    ASSERT_TRUE(waitForClients(2));

    // Called directly from the card thread; by name too, as the slots still may be.
    std::thread cardThread([&, first = announcedClients()[0]] {
        EXPECT_TRUE(QMetaObject::invokeMethod(thread.get(), "sendToClient", Qt::DirectConnection,
                                              Q_ARG(QString, "only a"), Q_ARG(ConnectionContext, first)));
        for (const char* text : {"one", "two", "three"})
            thread->sendToAll(text);
    });
    cardThread.join();
    EXPECT_EQ(receive(a, 6), QStringList({"reader A", "version", "only a", "one", "two", "three"}));
    EXPECT_EQ(receive(b, 5), QStringList({"reader A", "version", "one", "two", "three"}));
    EXPECT_EQ(announcedClients().size(), 2u);
}

// What the service relies on: it admits under the lock it broadcasts under, and the greeting
// tells how far the broadcasts had come. Every later one must follow it, none missing, none twice.
TEST_F(ManualAdmissionServer, AClientAdmittedDuringBroadcastsMissesNoneAndGetsNoneTwice)
{
    std::mutex serviceLock;
    int lastSent = 0;
    QObject::connect(thread.get(), &ServerThread::onClientConnected, thread.get(),
                     [&](ConnectionContext context) {
                         std::lock_guard<std::mutex> lock(serviceLock);
                         thread->admitClient(context, {"seen " + QString::number(lastSent)});
                     }, Qt::DirectConnection);
    const int total = 400;
    std::atomic<bool> connected{false};
    std::thread cardThread([&] {
        for (int i = 1; i <= total; ++i) {
            // Keep going until the client is in, so that its admission lands among broadcasts.
            if (i == total / 2)
                while (!connected) std::this_thread::yield();
            std::lock_guard<std::mutex> lock(serviceLock);
            lastSent = i;
            thread->sendToAll(QString::number(i));
        }
    });
    TestWsClient client;
    EXPECT_TRUE(client.connect(port));
    connected = true;
    cardThread.join();

    // Nothing before the greeting, then every broadcast after the last one it saw.
    const auto greeting = client.nextMessage();
    ASSERT_TRUE(greeting && greeting->startsWith("seen ")) << greeting.value_or("none").toStdString();
    for (int expected = greeting->mid(5).toInt() + 1; expected <= total; ++expected)
        ASSERT_EQ(client.nextMessage(), QString::number(expected));
}

TEST_F(RunningServer, StopEndsRunWithClientsConnectedAndARestartListensAtOnce)
{
    TestWsClient a;
    ASSERT_TRUE(a.connect(port));
    ASSERT_TRUE(waitForClients(1));
    thread->stopServer();
    ASSERT_TRUE(thread->wait(30000));
    TestWsClient late;
    EXPECT_FALSE(late.connect(port));

    // The stopped server's connections still hold the port, and a restart must listen at once.
    ServerThread again(port, cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
    again.start();
    ASSERT_TRUE(again.waitForInit());
    TestWsClient after;
    EXPECT_TRUE(after.connect(port)) << after.lastError().toStdString();
}

