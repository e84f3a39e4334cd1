#include "RunningServer.h"

#include <QFile>

#include <thread>

namespace {

const QString removedOne = "ServerThread::clientDisconnected: removed 1 client(s).";

} // namespace

TEST_F(RunningServer, EachClientIsAnnouncedOnceAndReachedAloneOrWithAllInOrder)
{
    TestWsClient a, b;
    ASSERT_TRUE(a.connect(port)) << a.lastError().toStdString();
    ASSERT_TRUE(waitForClients(1));
    ASSERT_TRUE(b.connect(port)) << b.lastError().toStdString();
    ASSERT_TRUE(waitForClients(2));

    // The card thread calls the slots by name, so the context crosses threads as a queued argument.
    std::thread cardThread([&, first = announced[0]] {
        EXPECT_TRUE(QMetaObject::invokeMethod(thread.get(), "sendToClient", Q_ARG(QString, "only a"),
                                              Q_ARG(ConnectionContext, first)));
        EXPECT_TRUE(QMetaObject::invokeMethod(thread.get(), "sendToAll", Q_ARG(QString, "everyone")));
    });
    cardThread.join();
    QStringList atA, atB;
    EXPECT_TRUE(waitUntil([&] {
        for (auto [client, received] : {std::pair(&a, &atA), std::pair(&b, &atB)}) {
            if (const auto message = client->nextMessage(0))
                *received << *message;
        }
        return atA.size() == 2 && atB.size() == 1;
    }));
    EXPECT_EQ(atA, QStringList({"only a", "everyone"}));
    EXPECT_EQ(atB, QStringList("everyone"));
    EXPECT_EQ(announced.size(), 2u);
    EXPECT_FALSE(announced[0] == announced[1]);
}

TEST_F(RunningServer, DepartedClientsAreRemovedOneByOneAndAVanishedOneCutsNoBroadcastShort)
{
    TestWsClient a, b, c;
    ASSERT_TRUE(a.connect(port));
    ASSERT_TRUE(waitForClients(1));
    // Registered, but its connection no longer exists: every send to it fails.
    thread->clientConnected(ConnectionContext{});
    ASSERT_TRUE(b.connect(port) && c.connect(port));
    ASSERT_TRUE(waitForClients(4));

    b.close();
    ASSERT_TRUE(logged(removedOne));
    c.drop(); // gone without a word: the server notices only later
    EXPECT_NO_THROW(thread->sendToAll("tag"));
    EXPECT_NO_THROW(thread->sendToClient("greeting", ConnectionContext{}));
    EXPECT_EQ(a.nextMessage(), QStringLiteral("tag"));
    EXPECT_GE(LogCapture::instance().count("ServerThread: could not send to client"), 2);
    EXPECT_TRUE(logged(removedOne, 2));
}

TEST_F(RunningServer, StopEndsRunWithClientsConnectedAndEachStartEmptiesTheLibraryLogs)
{
    TestWsClient a;
    ASSERT_TRUE(a.connect(port));
    ASSERT_TRUE(waitForClients(1));
    thread->stopServer();
    ASSERT_TRUE(thread->wait(30000));
    TestWsClient late;
    EXPECT_FALSE(late.connect(port));

    for (const char* name : {"access.log", "error.log"}) {
        QFile file(logPrefix() + name);
        ASSERT_TRUE(file.open(QIODevice::Append) && file.write("stale line\n") > 0);
    }
    // A stop that comes before the loop starts ends it all the same.
    ServerThread next(TestSupport::findFreePorts(), cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
    next.stopServer();
    next.start();
    EXPECT_TRUE(next.waitForInit());
    EXPECT_TRUE(next.wait(30000));
    for (const char* name : {"access.log", "error.log"}) {
        QFile file(logPrefix() + name);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly) && !file.readAll().contains("stale line")) << name;
    }
}

TEST_F(RunningServer, ASecondServerOnTheSamePortFailsInitAndEnds)
{
    ServerThread second(port, cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
    second.start();
    EXPECT_FALSE(second.waitForInit());
    EXPECT_TRUE(second.wait(30000));
    EXPECT_TRUE(LogCapture::instance().contains("Could not create server:"));
    EXPECT_NO_THROW(second.sendToAll("nobody to send to"));
}
