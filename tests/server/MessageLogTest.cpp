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
