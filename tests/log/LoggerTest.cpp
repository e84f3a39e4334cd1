#include "DestinationFactory.h"
#include "Log.h"
#include "LogTestSupport.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QStringList>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace Log;

QStringList lines;

void collectLines()
{
    lines.clear();
    Logger::instance().addDestination(
        DestinationFactory::MakeFunctorDestination([](const QString& line, Level) { lines << line; }));
}

class LoggerTest : public ::testing::Test
{
protected:
    void SetUp() override { collectLines(); }
    void TearDown() override { Logger::destroyInstance(); }
};

TEST_F(LoggerTest, LineIsLevelLocalTimestampAndStreamedItems)
{
    const QString format = "yyyy-MM-ddThh:mm:ss.zzz";
    const QString before = QDateTime::currentDateTime().toString(format);
    TLOG_INFO() << "Application version:" << QString("0.25");
    const QString after = QDateTime::currentDateTime().toString(format);
    ASSERT_EQ(lines.size(), 1);
    const QRegularExpressionMatch match = QRegularExpression(
        R"(^INFO  (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}) Application version: "0.25" $)").match(lines[0]);
    ASSERT_TRUE(match.hasMatch()) << lines[0].toStdString();
    // Fixed-width text sorts like time; the zone is far from UTC.
    EXPECT_TRUE(before <= match.captured(1) && match.captured(1) <= after) << lines[0].toStdString();

    Logger::instance().setLoggingLevel(LevelTrace);
    TLOG_TRACE() << "100%1 of %2";
    TLOG_DEBUG();
    TLOG_WARN();
    TLOG_ERROR();
    TLOG_FATAL();
    EXPECT_TRUE(lines[1].endsWith(" 100%1 of %2 ")) << lines[1].toStdString();
    EXPECT_EQ(lines.replaceInStrings(QRegularExpression(" .*"), "").join(','), "INFO,TRACE,DEBUG,WARN,ERROR,FATAL");
}

TEST_F(LoggerTest, FilteredStatementsAreNotEvaluated)
{
    int evaluations = 0;
    const auto item = [&evaluations] { return ++evaluations; };
    TLOG_DEBUG() << item();
    // A log statement must not capture the else of the if around it.
    if (evaluations == 0)
        TLOG_WARN() << item();
    else
        TLOG_ERROR() << "unreachable";
    Logger::instance().setLoggingLevel(LevelOff);
    TLOG_FATAL() << item();
    EXPECT_EQ(evaluations, 1);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(lines[0].startsWith("WARN  "));
}

// The first timestamps of a process are the fragile ones: made by several threads at once, a few
// came out empty. So the check runs in fresh processes, with the zone left unset as a service
// has it, many times over.
TEST(Timestamp, FirstLinesOfManyThreadsAtOnceAllCarryAWellFormedOne)
{
    if (!qEnvironmentVariableIsSet(freshProcessVariable)) {
        for (int run = 0; run < 20; ++run) {
            const FreshRun child = runFreshProcess("Timestamp.*", {}, "TZ");
            ASSERT_EQ(child.exitCode, 0) << "run " << run << ":\n" << child.output.toStdString();
        }
        return;
    }

    collectLines();
    constexpr int threadCount = 16;
    std::atomic<int> waiting{threadCount};
    const auto logAtOnce = [&waiting] {
        --waiting;
        while (waiting > 0) {
        }
        for (int i = 0; i < 20; ++i)
            TLOG_WARN() << "line" << i;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back(logAtOnce);
    for (std::thread& thread : threads)
        thread.join();
    Logger::destroyInstance();

    EXPECT_EQ(lines.size(), threadCount * 20);
    const QRegularExpression wellFormed(R"(^WARN  \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} line \d+ $)");
    for (const QString& line : lines)
        ASSERT_TRUE(wellFormed.match(line).hasMatch()) << line.toStdString();
}

} // namespace

