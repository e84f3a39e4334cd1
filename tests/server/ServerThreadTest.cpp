#include "RunningServer.h"
#include "TestWsClient.h"

#include <QFile>
#include <QMetaObject>

#include <thread>

namespace {

const QString removedOne = QStringLiteral("ServerThread::clientDisconnected: removed 1 client(s).");
const QString sendFailed = QStringLiteral("ServerThread: could not send to client");

} // namespace

TEST_F(RunningServer, EachClientIsAnnouncedOnceAndCanBeAddressedAlone)
{
    TestWsClient a, b;
    ASSERT_TRUE(a.connect(port)) << a.lastError().toStdString();
    ASSERT_TRUE(waitForClients(1));
    ASSERT_TRUE(b.connect(port)) << b.lastError().toStdString();
    ASSERT_TRUE(waitForClients(2));

    thread->sendToClient(QStringLiteral("only a"), announced[0]);
    thread->sendToAll(QStringLiteral("everyone"));

    EXPECT_EQ(a.nextMessage(), QStringLiteral("only a"));
    EXPECT_EQ(a.nextMessage(), QStringLiteral("everyone"));
    // Had b been sent "only a" it would come first: frames to one client keep their order.
    EXPECT_EQ(b.nextMessage(), QStringLiteral("everyone"));

    QCoreApplication::processEvents();
    EXPECT_EQ(announced.size(), 2u);
    EXPECT_FALSE(announced[0] == announced[1]);
    EXPECT_FALSE(announcedOnOtherThread);
}

TEST_F(RunningServer, DisconnectRemovesExactlyThatClient)
{
    TestWsClient a, b, c;
    for (TestWsClient* client : {&a, &b, &c})
        ASSERT_TRUE(client->connect(port)) << client->lastError().toStdString();
    ASSERT_TRUE(waitForClients(3));

    b.close();
    ASSERT_TRUE(waitUntil([] { return logCapture().count(removedOne) == 1; }));
    c.drop();
    ASSERT_TRUE(waitUntil([] { return logCapture().count(removedOne) == 2; }));

    thread->sendToAll(QStringLiteral("after"));
    EXPECT_EQ(a.nextMessage(), QStringLiteral("after"));
    EXPECT_EQ(logCapture().count(sendFailed), 0) << "a departed client was still registered";
}

TEST_F(RunningServer, ClientThatIsGoneDoesNotCutABroadcastShort)
{
    TestWsClient a, b, vanishing;
    ASSERT_TRUE(a.connect(port));
    ASSERT_TRUE(waitForClients(1));
    // Registered, but its connection no longer exists: every send to it fails.
    thread->clientConnected(ConnectionContext{});
    ASSERT_TRUE(b.connect(port));
    ASSERT_TRUE(vanishing.connect(port));
    ASSERT_TRUE(waitForClients(4));

    vanishing.drop();
    EXPECT_NO_THROW(thread->sendToAll(QStringLiteral("tag")));
    EXPECT_EQ(a.nextMessage(), QStringLiteral("tag"));
    EXPECT_EQ(b.nextMessage(), QStringLiteral("tag"));
    EXPECT_GE(logCapture().count(sendFailed), 1);
    EXPECT_NO_THROW(thread->sendToClient(QStringLiteral("greeting"), ConnectionContext{}));
}

TEST_F(RunningServer, SendsCanBeInvokedByNameFromAnotherThread)
{
    TestWsClient a;
    ASSERT_TRUE(a.connect(port));
    ASSERT_TRUE(waitForClients(1));

    bool toAllQueued = false;
    bool toOneQueued = false;
    std::thread cardThread([&, client = announced[0]] {
        toAllQueued = QMetaObject::invokeMethod(thread.get(), "sendToAll", Qt::AutoConnection,
                                                Q_ARG(QString, QStringLiteral("to all")));
        toOneQueued = QMetaObject::invokeMethod(thread.get(), "sendToClient", Qt::AutoConnection,
                                                Q_ARG(QString, QStringLiteral("to one")),
                                                Q_ARG(ConnectionContext, client));
    });
    cardThread.join();
    EXPECT_TRUE(toAllQueued);
    EXPECT_TRUE(toOneQueued);

    QStringList received;
    EXPECT_TRUE(waitUntil([&] {
        if (auto message = a.nextMessage(0))
            received << *message;
        return received.size() == 2;
    }));
    EXPECT_EQ(received, QStringList({QStringLiteral("to all"), QStringLiteral("to one")}));
}

TEST_F(RunningServer, StopEndsTheLoopWithClientsStillConnected)
{
    TestWsClient a;
    ASSERT_TRUE(a.connect(port));
    ASSERT_TRUE(waitForClients(1));

    thread->stopServer();
    ASSERT_TRUE(thread->wait(eventTimeoutMs));
    TestWsClient late;
    EXPECT_FALSE(late.connect(port));
}

TEST_F(RunningServer, SecondServerOnATakenPortFailsInitAndEnds)
{
    ServerThread second(port, cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
    second.start();
    EXPECT_FALSE(second.waitForInit());
    EXPECT_TRUE(second.wait(eventTimeoutMs));
    EXPECT_TRUE(logCapture().contains(QStringLiteral("Could not create server:")));
    EXPECT_NO_THROW(second.sendToAll(QStringLiteral("nobody to send to")));
}

TEST_F(RunningServer, LibraryLogsStartEmptyAtEachStart)
{
    const auto read = [this](const char* name) {
        QFile file(logPrefix() + QLatin1String(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    thread->stopServer();
    ASSERT_TRUE(thread->wait(eventTimeoutMs));
    for (const char* name : {"access.log", "error.log"}) {
        QFile file(logPrefix() + QLatin1String(name));
        ASSERT_TRUE(file.open(QIODevice::Append) && file.write("stale line\n") > 0);
    }

    const quint16 secondPort = TestSupport::findFreePorts();
    ServerThread second(secondPort, cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
    second.start();
    ASSERT_TRUE(second.waitForInit());
    TestWsClient a;
    ASSERT_TRUE(a.connect(secondPort));
    EXPECT_TRUE(waitUntil([&] { return !read("access.log").isEmpty(); }));
    EXPECT_FALSE(read("access.log").contains("stale line"));
    EXPECT_FALSE(read("error.log").contains("stale line"));
}

TEST(ServerThreadStart, StopRequestedBeforeTheLoopStillEndsIt)
{
    TestCertificate cert;
    QTemporaryDir logDir;
    ServerThread thread(TestSupport::findFreePorts(), cert.certFile(), cert.keyFile(),
                        logDir.path() + QLatin1Char('/'), nullptr);
    thread.stopServer();
    thread.start();
    EXPECT_TRUE(thread.waitForInit());
    EXPECT_TRUE(thread.wait(eventTimeoutMs));
}
