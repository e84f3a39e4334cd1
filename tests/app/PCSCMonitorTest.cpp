#include "PCSCMonitor.h"

#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace {

TEST(PCSCMonitor, ReturnsAtOnceWhenTheFirstAttemptSucceedsOrThereIsNone)
{
    int attempts = 0;
    PCSCMonitor succeeding([&] { ++attempts; return true; });
    succeeding.process();
    EXPECT_EQ(attempts, 1);

    PCSCMonitor empty(nullptr);
    empty.process();
}

TEST(PCSCMonitor, StopDuringThePauseEndsTheLoopWithoutAnotherAttempt)
{
    std::atomic<int> attempts{0};
    std::promise<void> firstAttempt;
    PCSCMonitor monitor([&] {
        if (attempts++ == 0)
            firstAttempt.set_value();
        return false;
    });

    QThread thread;
    monitor.moveToThread(&thread);
    QObject::connect(&thread, &QThread::started, &monitor, &PCSCMonitor::process);
    thread.start();

    firstAttempt.get_future().wait();
    monitor.stop();
    thread.quit();
    ASSERT_TRUE(thread.wait(10000)) << "a stop must not wait out the retry interval";
    EXPECT_EQ(attempts.load(), 1);
}

TEST(PCSCMonitor, StopBeforeTheLoopStartsIsNotForgotten)
{
    std::atomic<int> attempts{0};
    PCSCMonitor monitor([&] { ++attempts; return false; });
    monitor.stop();
    monitor.process();
    EXPECT_EQ(attempts.load(), 0);
}

} // namespace
