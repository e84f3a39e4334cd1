#include "RawTlsClient.h"
#include "RunningServer.h"

#include <QDir>
#include <QScopeGuard>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Brings the process to its descriptor limit, all but one taken, and back.
class DescriptorFiller
{
public:
    DescriptorFiller()
    {
        getrlimit(RLIMIT_NOFILE, &original);
        // A low limit keeps the number of descriptors to take small.
        const rlim_t open = static_cast<rlim_t>(QDir("/proc/self/fd").count());
        rlimit lowered = original;
        lowered.rlim_cur = open + 32;
        setrlimit(RLIMIT_NOFILE, &lowered);
        for (int fd = ::dup(0); fd >= 0; fd = ::dup(0))
            taken.push_back(fd);
        ::close(taken.back());
        taken.pop_back();
    }
    ~DescriptorFiller()
    {
        for (int fd : taken)
            ::close(fd);
        setrlimit(RLIMIT_NOFILE, &original);
    }

private:
    rlimit original{};
    std::vector<int> taken;
};

} // namespace

TEST_F(RunningServer, AtTheDescriptorLimitAcceptingWaitsWithOneWarningAndResumes)
{
#ifdef __SANITIZE_ADDRESS__
    // That build also checks dynamic types, and the check needs a pipe: at the limit it reports
    // every type it has not seen yet as invalid.
    GTEST_SKIP() << "needs descriptors the undefined-behaviour sanitizer takes at the limit";
#endif
    const QString warning = "Out of file descriptors";
    TestWsClient client;
    ASSERT_TRUE(client.connect(port));
    ASSERT_TRUE(waitForClients(1));

    RawTlsClient late;
    std::atomic<bool> lateServed{false};
    {
        std::atomic<bool> go{false};
        // Started before the limit bites: the sanitizers' runtimes need descriptors of their
        // own to check a new thread.
        std::thread lateClient([&] {
            while (!go)
                std::this_thread::yield();
            lateServed = late.startTls() && late.upgrade();
        });
        // Runs after the filler has given the descriptors back, so the client can be served.
        const auto joinLateClient = qScopeGuard([&] {
            go = true;
            lateClient.join();
        });
        DescriptorFiller filler;
        // The client's socket takes the last descriptor; the server has none left to accept it.
        ASSERT_TRUE(late.connectTcp(port));
        go = true;
        ASSERT_TRUE(logged(warning));

        thread->sendToAll("while full");
        EXPECT_EQ(client.nextMessage(), QStringLiteral("while full"));
    }
    EXPECT_TRUE(lateServed);
    EXPECT_TRUE(logged("Accepting new WebSocket connections again."));
    EXPECT_EQ(LogCapture::instance().count(warning), 1);
    ASSERT_TRUE(waitForClients(2));
}
