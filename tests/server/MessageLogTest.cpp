#include "RunningServer.h"

namespace {

const QString notLogged = QStringLiteral("more message(s) from this client not logged)");

QString receivedLine(int number)
{
    return QStringLiteral("ServerThread::messageReceived: \"m%1\"").arg(number);
}

} // namespace

TEST_F(RunningServer, AFloodingClientGetsAFewLinesASecondAndTheCountOfTheRest)
{
    TestWsClient flooder, other;
    ASSERT_TRUE(flooder.connect(port)) << flooder.lastError().toStdString();
    ASSERT_TRUE(other.connect(port)) << other.lastError().toStdString();

    // Numbered, so that the count can be checked against the messages left out. The flood goes
    // on until a second has passed on the server and the next line tells how many were skipped.
    int sent = 0;
    while (LogCapture::instance().count(notLogged) == 0)
        ASSERT_TRUE(flooder.send(QStringLiteral("m%1").arg(++sent)));

    int firstSkipped = 0;
    int counted = 0;
    for (int number = 1; number <= sent && !counted; ++number) {
        if (LogCapture::instance().count(receivedLine(number)) == 0) {
            firstSkipped = firstSkipped ? firstSkipped : number;
        } else if (firstSkipped) {
            counted = number;
            EXPECT_EQ(LogCapture::instance().count(
                          {receivedLine(number), QStringLiteral("(%1 %2").arg(number - firstSkipped).arg(notLogged)}),
                      1);
        }
    }
    EXPECT_EQ(firstSkipped, 6) << "five lines in the first second";
    EXPECT_GT(counted, firstSkipped);

    // Another client has a budget of its own.
    ASSERT_TRUE(other.send(QStringLiteral("still heard")));
    EXPECT_TRUE(logged(QStringLiteral("ServerThread::messageReceived: \"still heard\"")));
}

TEST_F(RunningServer, BroadcastsAreLoggedByTypeReaderAndSizeWithoutTheCard)
{
    const QString tag = QStringLiteral(
        R"({"type":"TAG","tag_id":"0a0b0c0d","uid":"0d0c0b0a","reader":"Desk 2","repeat":false,"seq":1,"error":null})");
    const QString reader = QStringLiteral(R"({"type":"READER","event":"CONNECTED","name":"Desk 1","error":null})");
    thread->sendToAll(ProtocolTexts{QStringLiteral(R"({"type":"TAG","tag_id":"0a0b0c0d","error":null})"), tag});
    thread->sendToAll(ProtocolTexts{QStringLiteral(R"({"type":"SC","tag_id":"0a0b0c0d","error":null})"), QString()});
    thread->sendToAll(reader);
    thread->sendToAll(QStringLiteral("not a message"));
    TestWsClient client;
    ASSERT_TRUE(client.connect(port)) << client.lastError().toStdString();
    ASSERT_TRUE(waitForClients(1));
    thread->admitClient(announcedClients()[0], {reader, tag});

    LogCapture& log = LogCapture::instance();
    EXPECT_EQ(log.count(QStringLiteral("ServerThread::sendToAll: TAG from \"Desk 2\", %1 bytes").arg(tag.size())), 1);
    EXPECT_EQ(log.count(QStringLiteral("ServerThread::sendToAll: SC, 46 bytes")), 1);
    EXPECT_EQ(log.count(QStringLiteral("ServerThread::sendToAll: READER from \"Desk 1\", %1 bytes").arg(reader.size())), 1);
    EXPECT_EQ(log.count(QStringLiteral("ServerThread::sendToAll: text, 13 bytes")), 1);
    EXPECT_EQ(log.count(QStringLiteral("ServerThread::admitClient: 2 greeting message(s): READER from \"Desk 1\", "
                                       "%1 bytes; TAG from \"Desk 2\", %2 bytes")
                            .arg(reader.size())
                            .arg(tag.size())),
              1);
    EXPECT_EQ(log.count(QStringLiteral("0a0b0c0d")), 0);
    EXPECT_EQ(log.count(QStringLiteral("0d0c0b0a")), 0);
}
