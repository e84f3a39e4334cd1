#include "BenchmarkReport.h"
#include "LatencySummary.h"
#include "ProcessStats.h"
#include "TagArrivals.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <future>
#include <sstream>
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

TEST(BenchmarkFigures, CpuTicksSurviveOddCommandNames)
{
    // utime 1500 and stime 250; the name holds spaces and a ')'.
    const std::string stat = "4242 (tiv svc) (x)) S 1 4242 4242 0 -1 4194560 900 0 0 0 1500 250 0 0 20 0 5 0";
    EXPECT_EQ(ProcessStats::cpuTicksFromStat(stat), 1750u);
    EXPECT_FALSE(ProcessStats::cpuTicksFromStat("4242 (truncated) S 1 2"));
    EXPECT_FALSE(ProcessStats::cpuTicksFromStat(""));

    EXPECT_TRUE(ProcessStats::cpuSeconds(::getpid()));
    EXPECT_GT(ProcessStats::residentKiB(::getpid()).value_or(0), 0);
}

TEST(BenchmarkFigures, ThreadAndDescriptorCountsFollowTheProcess)
{
    // A sanitizer starts a helper thread with the first thread of the process: count from the second.
    std::promise<void> release;
    const std::shared_future<void> gate = release.get_future().share();
    std::thread first([gate] { gate.wait(); });
    const int threads = ProcessStats::threadCount(::getpid()).value_or(-1);
    const int descriptors = ProcessStats::descriptorCount(::getpid()).value_or(-1);
    ASSERT_GE(threads, 2);
    ASSERT_GE(descriptors, 3);

    std::thread second([gate] { gate.wait(); });
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(ProcessStats::threadCount(::getpid()), threads + 1);
    EXPECT_EQ(ProcessStats::descriptorCount(::getpid()), descriptors + 1);
    ::close(fd);
    release.set_value();
    first.join();
    second.join();

    EXPECT_FALSE(ProcessStats::threadCount(-1));
    EXPECT_FALSE(ProcessStats::descriptorCount(-1));
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

TEST(BenchmarkFigures, ReportSummarisesRoundsAndRestartsAgainstTheGoals)
{
    BenchmarkReport report;
    report.restartCycles = 3;
    report.baselineResidentKiB = 16000;
    RoundResult small;
    small.clients = 100;
    small.residentKiB = 26000;
    small.lastClient = {300};
    small.firstToLast = {4};
    RoundResult thousand;
    thousand.clients = 1000;
    thousand.connectSeconds = 1.5;
    thousand.residentKiB = 116000;
    thousand.lastClient = {250, 260, 400};
    thousand.firstToLast = {40, 30, 50};
    report.rounds = {small, thousand};
    // Memory per client is what the clients add, not the service's whole VmRSS.
    EXPECT_EQ(report.residentKiBPerClient(thousand), 100.0);

    // The second cycle lost its tap: it counts as lost and stays out of the times.
    report.restarts.clients = 10;
    report.restarts.cycles = {{1200, 15000.0}, {1300, std::nullopt}, {1100, 14000.0}};
    report.restarts.threadsBefore = 5;
    report.restarts.threadsAfter = 7;
    report.restarts.descriptorsBefore = 30;
    std::ostringstream out;
    report.print(out);
    const std::string text = out.str();
    for (const char* expected :
         {"14.00 s    15.00 s", "2 of 3", "15.00 s lost 14.00 s",
          "5 -> 7", "30 -> ?", "fan-out first to last p50, 1000 clients", "40.0 ms",
          "memory per client, 1000 clients", "100 KiB", "connect and greet 1000 clients", "1.50 s"})
        EXPECT_NE(text.find(expected), std::string::npos) << "missing '" << expected << "' in\n" << text;
    EXPECT_TRUE(report.complete()) << "a lost tap is a finding, not a failed run";

    report.restarts.error = "pcscd did not come back";
    EXPECT_FALSE(report.complete());
}

} // namespace
