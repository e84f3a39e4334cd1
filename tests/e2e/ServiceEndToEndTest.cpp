// The built service as a black box on a private PC/SC stack: a pcscd with the virtual reader
// pair, virtual cards, and real TLS WebSocket clients.
#include "OriginalTexts.h"
#include "ServiceFixture.h"
#include "TagArrivals.h"
#include "TestWsClient.h"
#include "WssClientGroup.h"

#include <QDir>

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

namespace {

using VirtualCards::CardPersonality;
using VirtualCards::parseHex;

// A refresh of the reader list comes every 15 s; a loaded two-core machine needs room on top.
constexpr int eventTimeoutMs = 45000;

std::string cardText(const char* type, const QString& id)
{
    return OriginalTexts::card(type, id);
}

std::string readerText(const QString& name, bool connected)
{
    return OriginalTexts::reader(name, connected);
}

const std::string& versionText = OriginalTexts::version;

std::string next(TestWsClient& client, int timeoutMs = eventTimeoutMs)
{
    const std::optional<QString> message = client.nextMessage(timeoutMs);
    return message ? message->toStdString() : std::string("<nothing>");
}

int countEntries(const QString& path)
{
    return QDir(path).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

class ServiceEndToEnd : public ServiceFixture
{
protected:
    std::unique_ptr<TestWsClient> connectClient()
    {
        auto client = std::make_unique<TestWsClient>();
        EXPECT_TRUE(client->connect(port)) << client->lastError().toStdString();
        return client;
    }

    void expectReaderGreeting(TestWsClient& client)
    {
        EXPECT_EQ(next(client), readerText(pcscd.readerName(0), true));
        EXPECT_EQ(next(client), readerText(pcscd.readerName(1), true));
        EXPECT_EQ(next(client), versionText);
    }

    void stopService(int signalNumber)
    {
        service.sendSignal(signalNumber);
        ASSERT_TRUE(service.waitForExit());
        EXPECT_EQ(service.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(service.exitCode(), 0) << service.standardError().right(20000).toStdString();
    }
};

TEST_F(ServiceEndToEnd, ClientsAreGreetedAndEveryCardReachesEveryClient)
{
    startPcscd();
    startServiceWithReaders();

    auto first = connectClient();
    expectReaderGreeting(*first);
    auto second = connectClient();
    expectReaderGreeting(*second);

    // The first client's next message is the tag, so nothing of the second greeting leaked.
    auto tagCard = layOn(0, tag("04a10b7f"));
    EXPECT_EQ(next(*first), cardText("TAG", QStringLiteral("04a10b7f")));
    EXPECT_EQ(next(*second), cardText("TAG", QStringLiteral("04a10b7f")));
    tagCard->takeAway();

    // Left on the reader, the card is read again after the next refresh of the reader list.
    auto acos = layOn(1, CardPersonality::acosCard(*parseHex("0102030405060708")));
    for (TestWsClient* each : {first.get(), second.get(), first.get(), second.get()})
        EXPECT_EQ(next(*each), cardText("SC", QStringLiteral("0102030405060708")));

    // A card that answers with an error is a log line, not a message, and the service goes on.
    CardPersonality faulty = tag("0badcafe");
    faulty.setStatusWord(0x6A, 0x82);
    auto faultyCard = layOn(0, faulty);
    EXPECT_TRUE(waitUntil([&] { return service.countInLog(QStringLiteral("Wrong response")) > 0; }, eventTimeoutMs));
    EXPECT_EQ(next(*first, 1000), "<nothing>");

    stopService(SIGTERM);
    EXPECT_EQ(service.readSettings().value(QStringLiteral("service/port")).toInt(), port);
}

TEST_F(ServiceEndToEnd, ClientsSeeTheReadersGoWithPcscdAndComeBackWithItWithoutLeaksAndAStopWhileItIsGoneEndsCleanly)
{
    startPcscd();
    startServiceWithReaders();
    auto client = connectClient();
    expectReaderGreeting(*client);

    const QString proc = QStringLiteral("/proc/%1/").arg(service.pid());
    const auto threads = [&] { return countEntries(proc + QStringLiteral("task")); };
    const auto descriptors = [&] { return countEntries(proc + QStringLiteral("fd")); };
    const int baselineThreads = threads();
    const int baselineDescriptors = descriptors();

    for (int cycle = 1; cycle <= 3; ++cycle) {
        SCOPED_TRACE(cycle);
        pcscd.kill();
        EXPECT_EQ(next(*client), readerText(pcscd.readerName(0), false));
        EXPECT_EQ(next(*client), readerText(pcscd.readerName(1), false));
        // Greeted while PC/SC is away: no reader at all.
        auto late = connectClient();
        EXPECT_EQ(next(*late), versionText);

        ASSERT_TRUE(pcscd.restart()) << pcscd.lastError().toStdString();
        for (TestWsClient* each : {client.get(), late.get()}) {
            EXPECT_EQ(next(*each), readerText(pcscd.readerName(0), true));
            EXPECT_EQ(next(*each), readerText(pcscd.readerName(1), true));
        }
        const QString uid = QStringLiteral("0a0b0c0%1").arg(cycle);
        auto card = layOn(0, tag(uid.toStdString()));
        EXPECT_EQ(next(*client), cardText("TAG", uid));
        EXPECT_EQ(next(*late), cardText("TAG", uid));
    }

    // The late clients are gone; their connections close once the service notices.
    EXPECT_TRUE(waitUntil([&] { return threads() == baselineThreads && descriptors() == baselineDescriptors; },
                          eventTimeoutMs))
        << threads() << " threads, " << descriptors() << " descriptors; at first " << baselineThreads << ", "
        << baselineDescriptors;

    // A stop while the service waits for a lost PC/SC to return.
    pcscd.kill();
    EXPECT_EQ(next(*client), readerText(pcscd.readerName(0), false));
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
