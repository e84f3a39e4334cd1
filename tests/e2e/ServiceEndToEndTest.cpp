// The built service as a black box on a private PC/SC stack: a pcscd with the virtual reader
// pair, virtual cards, and real TLS WebSocket clients.
#include "OriginalTexts.h"
#include "ServiceFixture.h"
#include "TagArrivals.h"
#include "WssClientGroup.h"

#include <QDir>

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

namespace {

int countEntries(const QString& path)
{
    return QDir(path).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

class ServiceEndToEnd : public ServiceFixture
{
protected:
    void stopService(int signalNumber)
    {
        service.sendSignal(signalNumber);
        ASSERT_TRUE(service.waitForExit());
        EXPECT_EQ(service.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(service.exitCode(), 0) << service.standardError().right(20000).toStdString();
    }
};

TEST_F(ServiceEndToEnd, ClientsSeeTheReadersGoWithPcscdAndComeBackWithItWithoutLeaksAndAStopWhileItIsGoneEndsCleanly)
{
    startPcscd();
    startServiceWithReaders();
    auto client = connectClient();
    EXPECT_EQ(next(*client), OriginalTexts::reader(pcscd.readerName(0), true));
    EXPECT_EQ(next(*client), OriginalTexts::reader(pcscd.readerName(1), true));
    EXPECT_EQ(next(*client), OriginalTexts::version);

    const QString proc = QStringLiteral("/proc/%1/").arg(service.pid());
    const auto threads = [&] { return countEntries(proc + QStringLiteral("task")); };
    const auto descriptors = [&] { return countEntries(proc + QStringLiteral("fd")); };
    const int baselineThreads = threads();
    const int baselineDescriptors = descriptors();

    for (int cycle = 1; cycle <= 3; ++cycle) {
        SCOPED_TRACE(cycle);
        pcscd.kill();
        EXPECT_EQ(next(*client), OriginalTexts::reader(pcscd.readerName(0), false));
        EXPECT_EQ(next(*client), OriginalTexts::reader(pcscd.readerName(1), false));
        // Greeted while PC/SC is away: no reader at all.
        auto late = connectClient();
        EXPECT_EQ(next(*late), OriginalTexts::version);

        ASSERT_TRUE(pcscd.restart()) << pcscd.lastError().toStdString();
        for (TestWsClient* each : {client.get(), late.get()}) {
            EXPECT_EQ(next(*each), OriginalTexts::reader(pcscd.readerName(0), true));
            EXPECT_EQ(next(*each), OriginalTexts::reader(pcscd.readerName(1), true));
        }
        const QString uid = QStringLiteral("0a0b0c0%1").arg(cycle);
        auto card = layOn(0, tag(uid.toStdString()));
        EXPECT_EQ(next(*client), OriginalTexts::card("TAG", uid));
        EXPECT_EQ(next(*late), OriginalTexts::card("TAG", uid));
    }

    // The late clients are gone; their connections close once the service notices.
    EXPECT_TRUE(waitUntil([&] { return threads() == baselineThreads && descriptors() == baselineDescriptors; },
                          eventTimeoutMs))
        << threads() << " threads, " << descriptors() << " descriptors; at first " << baselineThreads << ", "
        << baselineDescriptors;

    // A stop while the service waits for a lost PC/SC to return.
    pcscd.kill();
    EXPECT_EQ(next(*client), OriginalTexts::reader(pcscd.readerName(0), false));
    stopService(SIGTERM);
}

TEST_F(ServiceEndToEnd, ClientsThatStormTheServiceAsItStartsAreEachGreeted)
{
    using namespace std::chrono_literals;
    startPcscd();
    const int clients = 1000;
    TagArrivals arrivals(clients);
    WssClientGroup group([&](int connection, const std::string& text,
                             WssClientGroup::Clock::time_point at) { arrivals.onMessage(connection, text, at); });
    // Each keeps trying from before the service listens until it is in; one the service closes
    // before it is open (its deadline under this load) comes back too.
    group.setRetry(100ms);
    bool allOpen = false;
    std::thread connecting([&] { allOpen = group.connect(port, clients, 120s, clients); });
    // Started once the clients have been turned away about half as often as there are clients: a
    // sanitizer build on a busy machine retries slowly, and the storm is on either way.
    const bool started = waitUntil([&] { return group.retries() >= clients / 2; }, 120000) && service.start();
    connecting.join();
    ASSERT_TRUE(started);
    ASSERT_TRUE(allOpen) << group.lastError();
    EXPECT_TRUE(arrivals.waitForGreetings(60s)) << "an open client was never greeted";
    stopService(SIGTERM);
}

} // namespace
