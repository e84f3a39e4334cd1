#include "FakeStackFixture.h"
#include "Liveness.h"
#include "NotifySocket.h"
#include "ServiceHealth.h"
#include "ServiceSupervisor.h"
#include "SystemdNotifier.h"

#include <QCoreApplication>

#include <atomic>
#include <utility>
#include <thread>

namespace {

using namespace std::chrono_literals;

QProcessEnvironment environment(const QStringList& assignments)
{
    QProcessEnvironment values;
    for (const QString& assignment : assignments)
        values.insert(assignment.section(QLatin1Char('='), 0, 0), assignment.section(QLatin1Char('='), 1));
    return values;
}

std::vector<QByteArray> pending(NotifySocket& manager)
{
    std::vector<QByteArray> datagrams;
    while (const std::optional<QByteArray> datagram = manager.next(0))
        datagrams.push_back(*datagram);
    return datagrams;
}

TEST(SystemdNotifier, ReachesPathAndAbstractSocketsAndAnswersOnlyItsOwnWatchdog)
{
    EXPECT_FALSE(SystemdNotifier::fromEnvironment(environment({"WATCHDOG_USEC=30000000"})).isActive());
    EXPECT_FALSE(SystemdNotifier().notify("READY=1"));

    for (const bool abstract : {false, true}) {
        NotifySocket manager(abstract);
        ASSERT_TRUE(manager.isOpen());
        const QString socket = "NOTIFY_SOCKET=" + manager.address();
        SystemdNotifier notifier = SystemdNotifier::fromEnvironment(environment({socket, "WATCHDOG_USEC=30000000"}));
        EXPECT_EQ(notifier.watchdogPeriod(), std::optional<std::chrono::microseconds>(30s));
        EXPECT_TRUE(notifier.notify("READY=1\nSTATUS=1 reader"));
        EXPECT_EQ(manager.next(5000), QByteArray("READY=1\nSTATUS=1 reader")) << manager.address().toStdString();
    }

    // A watchdog set up for another process of the service is not ours to answer.
    const QString own = QStringLiteral("WATCHDOG_PID=%1").arg(getpid());
    const QStringList watched = {"NOTIFY_SOCKET=@any", "WATCHDOG_USEC=5000000"};
    EXPECT_TRUE(SystemdNotifier::fromEnvironment(environment(watched + QStringList{own})).watchdogPeriod());
    EXPECT_FALSE(SystemdNotifier::fromEnvironment(environment(watched + QStringList{"WATCHDOG_PID=1"})).watchdogPeriod());
}

TEST(ServiceSupervisor, StatusChangesFromOtherThreadsReachTheManagerFromMainOnceEach)
{
    NotifySocket manager;
    ServiceHealth health(QStringLiteral("test"));
    ServiceSupervisor supervisor(SystemdNotifier(manager.address().toLocal8Bit(), std::nullopt), health);
    supervisor.serviceReady();
    const std::optional<QByteArray> ready = manager.next(5000);
    ASSERT_TRUE(ready);
    EXPECT_TRUE(ready->startsWith("READY=1\nSTATUS=waiting for PC/SC since ")) << ready->toStdString();

    std::thread card([&] {
        health.setPcscUp(true);
        health.readerConnected(QStringLiteral("A"));
    });
    card.join();
    // Nothing is sent from the card thread itself.
    EXPECT_EQ(pending(manager), std::vector<QByteArray>{});
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(pending(manager), std::vector<QByteArray>{"STATUS=1 reader, 0 clients, PC/SC up"});

    // A change that ends where it began tells nothing new.
    health.readerConnected(QStringLiteral("B"));
    health.readerDisconnected(QStringLiteral("B"));
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(pending(manager), std::vector<QByteArray>{});

    supervisor.serviceStopping();
    health.setPcscUp(false);
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(pending(manager), std::vector<QByteArray>{"STOPPING=1"});
}

// The real card loop on the scripted PC/SC stack, beating into the supervisor, whose clock
// the test moves by hand.
using CardLoopWatchdog = FakeStack;

TEST_F(CardLoopWatchdog, TheLoopWaitsAtMostHalfAPeriodAndAWaitThatHangsStopsTheWatchdog)
{
    using Clock = Liveness::Clock;
    std::atomic<Clock::rep> now{0};
    const auto advance = [&](Clock::duration by) { now += by.count(); };
    auto liveness = std::make_shared<Liveness>([&] { return Clock::time_point(Clock::duration(now.load())); });
    NotifySocket manager;
    ServiceHealth health(QStringLiteral("test"));
    ServiceSupervisor supervisor(SystemdNotifier(manager.address().toLocal8Bit(), 10s), health, liveness);
    // The network thread's queue, run by the test.
    std::vector<std::function<void()>> network;
    supervisor.setNetworkPost([&](std::function<void()> work) {
        network.push_back(std::move(work));
        return true;
    });
    const auto networkRuns = [&] {
        for (const auto& work : std::exchange(network, {}))
            work();
    };
    controller->setHeartbeat(supervisor.cardHeartbeat(), supervisor.cardBeatInterval());
    supervisor.serviceReady();
    EXPECT_TRUE(manager.awaitLine("READY=1", 5000));

    FakePcsc::stack.readers = {"A"};
    // One wait passes 6 s; the round after it beats, and its wait never returns.
    FakePcsc::stack.script.push_back([&] { advance(6s); });
    FakePcsc::stack.script.push_back(FakePcsc::blockUntilCancelled);
    std::thread loop([this] { controller->process(); });
    FakePcsc::blockedWait();
    EXPECT_EQ(calls("Wait"), (Lines{"Wait 0 1", "Wait 5000 2", "Wait 5000 2", "Wait 5000 2"}));

    // Heard of 9 s ago, within the period of 10 s.
    advance(9s);
    networkRuns();
    supervisor.checkLiveness();
    EXPECT_EQ(pending(manager), std::vector<QByteArray>{"WATCHDOG=1"});

    // Past the period the network thread still answers, the card loop does not.
    advance(1s + 1ms);
    networkRuns();
    supervisor.checkLiveness();
    networkRuns();
    supervisor.checkLiveness();
    EXPECT_EQ(pending(manager), std::vector<QByteArray>{});
    EXPECT_EQ(LogCapture::instance().count({"Watchdog withheld:", "the card side"}), 1);

    controller->stop();
    loop.join();
}

} // namespace
