#include "ProcessStats.h"
#include "TagArrivals.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

TEST(BenchmarkFigures, CpuTimeCountsWorkFinerThanAClockTick)
{
    const std::optional<double> before = ProcessStats::cpuSeconds(::getpid());
    ASSERT_TRUE(before);
    // A few milliseconds of work: less than one 10 ms tick of /proc/<pid>/stat.
    volatile unsigned sink = 0;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(3))
        sink = sink + 1;
    // A running thread's count is brought up to date when it is switched out.
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GT(*ProcessStats::cpuSeconds(::getpid()), *before);
    EXPECT_FALSE(ProcessStats::cpuSeconds(-1));
}

TEST(BenchmarkFigures, ArrivalsCountEachClientsTagOnceAndIgnoreOthers)
{
    const std::string indented = "{\n    \"error\": null,\n    \"tag_id\": \"b0000001\",\n    \"type\": \"TAG\"\n}\n";
    EXPECT_EQ(jsonStringField(indented, "tag_id"), std::string("b0000001"));
    EXPECT_EQ(jsonStringField("{\"type\":\"VERSION\"}", "type"), std::string("VERSION"));
    EXPECT_FALSE(jsonStringField(indented, "error"));
    EXPECT_FALSE(jsonStringField(indented, "name"));

    using Clock = TagArrivals::Clock;
    const Clock::time_point t0 = Clock::now();
    TagArrivals arrivals(2);
    arrivals.expect("b0000001");
    arrivals.onMessage(1, indented, t0 + std::chrono::milliseconds(5));
    arrivals.onMessage(1, indented, t0 + std::chrono::milliseconds(50)); // a re-report of the same card
    arrivals.onMessage(0, "{\"tag_id\": \"b0000002\", \"type\": \"TAG\"}", t0 + std::chrono::milliseconds(1));
    arrivals.onMessage(0, "{\"tag_id\": \"b0000001\", \"type\": \"SC\"}", t0 + std::chrono::milliseconds(2));
    EXPECT_FALSE(arrivals.waitForAll(std::chrono::milliseconds(0))) << "connection 0 has no matching TAG yet";

    arrivals.onMessage(0, indented, t0 + std::chrono::milliseconds(9));
    const auto spread = arrivals.waitForAll(std::chrono::milliseconds(0));
    ASSERT_TRUE(spread);
    EXPECT_EQ(spread->first, t0 + std::chrono::milliseconds(5));
    EXPECT_EQ(spread->last, t0 + std::chrono::milliseconds(9));

    // The next tap starts from nothing.
    arrivals.expect("b0000002");
    EXPECT_FALSE(arrivals.waitForAll(std::chrono::milliseconds(0)));
}

} // namespace
