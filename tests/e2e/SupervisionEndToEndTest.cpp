// The built service under a stand-in for systemd's notify socket: readiness once it listens,
// the status line following PC/SC and its readers, the watchdog while both sides work.
#include "NotifySocket.h"
#include "ServiceFixture.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class SupervisionEndToEnd : public ServiceFixture
{
protected:
    void SetUp() override
    {
        ServiceFixture::SetUp();
        ASSERT_TRUE(manager.isOpen());
        service.setEnvironment(QStringLiteral("NOTIFY_SOCKET"), manager.address());
        service.setEnvironment(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("2000000"));
    }

    // The status line that starts with `text`.
    std::string awaitStatus(const QByteArray& text)
    {
        const auto line = manager.awaitLine("STATUS=" + text, eventTimeoutMs);
        return line ? line->toStdString() : "<none>";
    }

    // Four more watchdog notices, two periods' worth: a side that stopped beating would have
    // run out of the beat it was given as it took over.
    void expectWatchdogGoesOn(const char* phase)
    {
        SCOPED_TRACE(phase);
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(manager.awaitLine("WATCHDOG=1", eventTimeoutMs)) << service.appLog().toStdString();
    }

    NotifySocket manager;
};

TEST_F(SupervisionEndToEnd, ReadyOnceListeningThenTheStatusFollowsPcscAndTheWatchdogGoesOnUntilTheStop)
{
    startPcscd();
    ASSERT_TRUE(service.start());

    const std::optional<QByteArray> ready = manager.next(eventTimeoutMs);
    ASSERT_TRUE(ready) << service.appLog().toStdString();
    EXPECT_TRUE(ready->startsWith("READY=1\nSTATUS=")) << ready->toStdString();
    // The first notice of all: the port already takes clients.
    TestWsClient client;
    EXPECT_TRUE(client.connect(port, 5000)) << client.lastError().toStdString();

    EXPECT_TRUE(QString::fromStdString(awaitStatus("2 readers, ")).endsWith(QStringLiteral(", PC/SC up")));
    expectWatchdogGoesOn("PC/SC up");

    pcscd.kill();
    EXPECT_NE(awaitStatus("waiting for PC/SC since "), "<none>");
    // The monitor is the card side now.
    expectWatchdogGoesOn("PC/SC down");

    ASSERT_TRUE(pcscd.restart()) << pcscd.lastError().toStdString();
    EXPECT_NE(awaitStatus("2 readers, "), "<none>");
    expectWatchdogGoesOn("PC/SC back");

    service.sendSignal(SIGTERM);
    EXPECT_TRUE(manager.awaitLine("STOPPING=1", eventTimeoutMs));
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitCode(), 0);
}

} // namespace
