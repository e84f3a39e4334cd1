#include "BenchmarkReport.h"
#include "LatencySummary.h"
#include "ProcessStats.h"
#include "TagArrivals.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

TEST(BenchmarkFigures, PercentilesAreMeasuredValuesByNearestRank)
{
    std::vector<double> hundred;
    for (int i = 100; i >= 1; --i)
        hundred.push_back(i);
    const LatencySummary s = LatencySummary::of(hundred);
    EXPECT_EQ(s.count, 100);
    EXPECT_EQ(s.p50, 50);
    EXPECT_EQ(s.p95, 95);
    EXPECT_EQ(s.max, 100);

    // Few samples: p95 is the largest, never a value beyond the sorted list.
    const LatencySummary three = LatencySummary::of({30, 10, 20});
    EXPECT_EQ(three.p50, 20);
    EXPECT_EQ(three.p95, 30);
    EXPECT_EQ(LatencySummary::of({7}).p50, 7);
    EXPECT_EQ(LatencySummary::of({}).count, 0);
}

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

TEST(BenchmarkFigures, MemoryPerClientIsWhatTheClientsAdd)
{
    BenchmarkReport report;
    report.baselineResidentKiB = 16000;
    RoundResult thousand;
    thousand.clients = 1000;
    thousand.residentKiB = 116000;
    EXPECT_EQ(report.residentKiBPerClient(thousand), 100.0);
    report.baselineResidentKiB.reset();
    EXPECT_FALSE(report.residentKiBPerClient(thousand));
}

} // namespace
