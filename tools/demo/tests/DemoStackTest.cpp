// The pieces the demo and the benchmark stand on, against the real service on a private
// PC/SC stack: the presence watch, the many-connection client, the line reader.
#include "CardPersonality.h"
#include "FreePort.h"
#include "MessageLog.h"
#include "ReaderPresenceWatch.h"
#include "ServiceStack.h"
#include "StdinLines.h"
#include "VirtualCard.h"
#include "WssClientGroup.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

namespace {

using namespace std::chrono_literals;
using VirtualCards::CardPersonality;
using VirtualCards::VirtualCard;

// Generous: a sanitizer build on a loaded two-core machine is slow.
const auto eventTimeout = 60s;

// Counts what a group's connections receive; filled on the group's thread.
class Inbox
{
public:
    void add(int connection, const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (text.find("\"VERSION\"") != std::string::npos)
            greeted.insert(connection);
        if (text.find("\"TAG\"") != std::string::npos)
            tagged.insert(connection);
        changed.notify_all();
    }
    void closedOne(int connection)
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed.insert(connection);
        changed.notify_all();
    }
    bool waitUntil(const std::set<int> Inbox::*which, size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, eventTimeout, [&] { return (this->*which).size() >= count; });
    }

    std::set<int> snapshot(const std::set<int> Inbox::*which)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return this->*which;
    }

    std::set<int> greeted;
    std::set<int> tagged;
    std::set<int> closed;

private:
    std::mutex mutex;
    std::condition_variable changed;
};

class DemoStack : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        stack = new ServiceStack;
        const ServiceStack::StartResult result = stack->start(0, 60000);
        ASSERT_EQ(result, ServiceStack::StartResult::Started) << stack->lastError().toStdString();
    }
    static void TearDownTestSuite()
    {
        delete stack;
        stack = nullptr;
    }
    void SetUp() override
    {
        if (!stack || stack->port() == 0 || !stack->serviceRunning())
            GTEST_SKIP() << "the private stack did not start";
    }

    static std::string reader(int number) { return stack->readerName(number).toStdString(); }

    static ServiceStack* stack;
};

ServiceStack* DemoStack::stack = nullptr;

TEST_F(DemoStack, PresenceWatchSeesCardsComeAndGoAndCanBeCancelled)
{
    ReaderPresenceWatch watch;
    ASSERT_TRUE(watch.open()) << watch.lastError();
    EXPECT_TRUE(watch.waitFor(reader(1), false, eventTimeout)) << watch.lastError();

    VirtualCard card(CardPersonality::rfidTag({0x0e, 0x0f}));
    ASSERT_TRUE(card.layOn(stack->vpcdPort(1))) << card.lastError();
    EXPECT_TRUE(watch.waitFor(reader(1), true, eventTimeout)) << watch.lastError();
    card.takeAway();
    EXPECT_TRUE(watch.waitFor(reader(1), false, eventTimeout)) << watch.lastError();

    // A misspelt reader must not look like a reader without a card.
    EXPECT_FALSE(watch.waitFor("No Such Reader 00 00", false, eventTimeout));
    EXPECT_NE(watch.lastError().find("No Such Reader"), std::string::npos) << watch.lastError();

    // A card that never comes: only the cancel can end this wait before the test's time-out.
    std::thread canceller([&] { watch.cancel(); });
    EXPECT_FALSE(watch.waitFor(reader(1), true, 600s));
    canceller.join();
}

TEST_F(DemoStack, ClientGroupGreetsEveryConnectionAndDeliversEachCard)
{
    const int clients = 25;
    Inbox inbox;
    WssClientGroup group([&](int connection, const std::string& text, WssClientGroup::Clock::time_point) {
        inbox.add(connection, text);
    });
    // Fewer handshakes in flight than clients: the group must chain the rest itself.
    ASSERT_TRUE(group.connect(stack->port(), clients, eventTimeout, 4)) << group.lastError();
    EXPECT_EQ(group.openCount(), clients);
    ASSERT_TRUE(inbox.waitUntil(&Inbox::greeted, clients));

    VirtualCard card(CardPersonality::rfidTag({0x0a, 0x0b, 0x0c}));
    ASSERT_TRUE(card.layOn(stack->vpcdPort(0))) << card.lastError();
    EXPECT_TRUE(inbox.waitUntil(&Inbox::tagged, clients));
    const std::set<int> tagged = inbox.snapshot(&Inbox::tagged);
    EXPECT_EQ(*tagged.begin(), 0);
    EXPECT_EQ(*tagged.rbegin(), clients - 1);

    EXPECT_TRUE(group.closeAll(eventTimeout));
    EXPECT_EQ(group.openCount(), 0);
    EXPECT_FALSE(group.connect(stack->port(), 1, eventTimeout)) << "a group connects once";
}

TEST(DemoStackAlone, ClientGroupReportsRefusedConnectionsAndAServiceThatStops)
{
    WssClientGroup refused([](int, const std::string&, WssClientGroup::Clock::time_point) {});
    EXPECT_FALSE(refused.connect(TestSupport::findFreePorts(), 2, eventTimeout));
    EXPECT_FALSE(refused.lastError().empty());

    ServiceStack stack;
    ASSERT_EQ(stack.start(0, 60000), ServiceStack::StartResult::Started) << stack.lastError().toStdString();

    Inbox inbox;
    WssClientGroup group([&](int connection, const std::string& text,
                             WssClientGroup::Clock::time_point) { inbox.add(connection, text); },
                         [&](int connection, const std::string&) { inbox.closedOne(connection); });
    ASSERT_TRUE(group.connect(stack.port(), 3, eventTimeout)) << group.lastError();
    stack.stop();
    EXPECT_TRUE(inbox.waitUntil(&Inbox::closed, 3)) << "every connection learns that the service went";
}

TEST(MessageLogWait, MatchesTypeAndIdFromTheGivenPositionOn)
{
    MessageLog log;
    const auto t0 = MessageLog::Clock::now();
    log.append(QStringLiteral("{\"tag_id\": \"01\", \"type\": \"TAG\"}"), t0);
    const size_t mark = log.size();
    // Only messages after the mark count: an earlier report of the same card is not an answer.
    EXPECT_FALSE(log.waitFor(QStringLiteral("TAG"), QStringLiteral("01"), mark, 0ms));

    std::thread client([&] {
        log.append(QStringLiteral("{\"tag_id\": \"01\", \"type\": \"SC\"}"), t0 + 1ms);
        log.append(QStringLiteral("not json"), t0 + 2ms);
        log.append(QStringLiteral("{\"tag_id\": \"01\", \"type\": \"TAG\"}"), t0 + 3ms);
    });
    EXPECT_EQ(log.waitFor(QStringLiteral("TAG"), QStringLiteral("01"), mark, eventTimeout), t0 + 3ms);
    client.join();

    std::thread canceller([&] { log.cancel(); });
    EXPECT_FALSE(log.waitFor(QStringLiteral("SC"), QStringLiteral("02"), 0, 600s));
    canceller.join();
}

// StdinLines reads file descriptor 0; the test puts a pipe there for the time being.
class StdinPipe : public ::testing::Test
{
protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        savedStdin = ::dup(STDIN_FILENO);
        ::dup2(fds[0], STDIN_FILENO);
        ::close(fds[0]);
        writeEnd = fds[1];
    }
    void TearDown() override
    {
        closeWriteEnd();
        ::dup2(savedStdin, STDIN_FILENO);
        ::close(savedStdin);
    }
    void write(const std::string& text) { ASSERT_EQ(::write(writeEnd, text.data(), text.size()), ssize_t(text.size())); }
    void closeWriteEnd()
    {
        if (writeEnd >= 0)
            ::close(writeEnd);
        writeEnd = -1;
    }

    int savedStdin = -1;
    int writeEnd = -1;
};

TEST_F(StdinPipe, LinesArriveWholeWhateverTheChunksAndTheLastNeedsNoLineEnd)
{
    StdinLines lines;
    write("tag 0 04a1");
    write("0b7f\r\n\nremove 0\nqu");
    write("it");
    closeWriteEnd();
    EXPECT_EQ(lines.next(), std::string("tag 0 04a10b7f"));
    EXPECT_EQ(lines.next(), std::string(""));
    EXPECT_EQ(lines.next(), std::string("remove 0"));
    EXPECT_EQ(lines.next(), std::string("quit"));
    EXPECT_FALSE(lines.next());
}

TEST_F(StdinPipe, CancelEndsAReadThatWouldWaitForever)
{
    StdinLines lines;
    std::thread canceller([&] { lines.cancel(); });
    EXPECT_FALSE(lines.next()); // the pipe stays open and empty
    canceller.join();
}

} // namespace
