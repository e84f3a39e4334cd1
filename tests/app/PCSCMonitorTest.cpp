#include "PCSCMonitor.h"

#include "LogCapture.h"

#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace {

using namespace std::chrono_literals;

TEST(PCSCMonitor, SignalsOnceWhenTheServiceAnswersAndLogsNothingPerAttempt)
{
    LogCapture::instance().clear();
    int attempts = 0;
    // No pauses, and a report interval no test reaches.
    PCSCMonitor monitor([&] { return ++attempts == 50; }, PCSCMonitor::Pacing{0ms, 0ms, 1h});
    int announced = 0;
    QObject::connect(&monitor, &PCSCMonitor::pcscAvailable, [&] { ++announced; });
    monitor.process();
    EXPECT_EQ(attempts, 50);
    EXPECT_EQ(announced, 1);
    EXPECT_EQ(LogCapture::instance().lines(), QStringList());
}

TEST(PCSCMonitor, StopDuringThePauseEndsTheLoopWithoutAnotherAttemptOrSignal)
{
    std::atomic<int> attempts{0};
    std::promise<void> firstAttempt;
    // A pause far longer than any test may take.
    PCSCMonitor monitor(
        [&] {
            if (attempts++ == 0)
                firstAttempt.set_value();
            return false;
        },
        PCSCMonitor::Pacing{1h, 1h, 1h});
    std::atomic<bool> signalled{false};
    QObject::connect(&monitor, &PCSCMonitor::pcscAvailable, [&] { signalled = true; });

    QThread thread;
    monitor.moveToThread(&thread);
    QObject::connect(&thread, &QThread::started, &monitor, &PCSCMonitor::process);
    thread.start();

    firstAttempt.get_future().wait();
    monitor.stop();
    thread.quit();
    thread.wait();
    EXPECT_EQ(attempts.load(), 1);
    EXPECT_FALSE(signalled.load());
}

} // namespace
