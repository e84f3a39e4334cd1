#include "PCSCMonitor.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

// A PC/SC service that stays away must not fill the log: one line a minute at most.
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
    EXPECT_EQ(LogCapture::instance().count(QStringList()), 0) << "lines logged";
}

} // namespace
