#include "Log.h"
#include "LogTestSupport.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QStringList>

#include <gtest/gtest.h>

namespace {

using namespace Log;

class Recorder : public Destination
{
public:
    Recorder(QStringList& sink, const QString& tag = {}, bool* destroyed = nullptr)
        : lines(sink), name(tag), destroyedFlag(destroyed) {}
    ~Recorder() override { if (destroyedFlag) *destroyedFlag = true; }
    void write(const QString& message, Level) override { lines << name + message; }
    bool isValid() override { return true; }

private:
    QStringList& lines;
    QString name;
    bool* destroyedFlag;
};

class LoggerTest : public ::testing::Test
{
protected:
    void SetUp() override { logger().addDestination(DestinationPtr(new Recorder(lines))); }
    void TearDown() override { Logger::destroyInstance(); }
    static Logger& logger() { return Logger::instance(); }
    QStringList lines;
};

QString now() { return QDateTime::currentDateTime().toString("yyyy-MM-ddThh:mm:ss.zzz"); }

TEST_F(LoggerTest, LineIsLevelLocalTimestampAndStreamedItems)
{
    const QString before = now();
    TLOG_INFO() << "Application version:" << QString("0.25");
    const QString after = now();
    ASSERT_EQ(lines.size(), 1);
    const QRegularExpressionMatch match = QRegularExpression(
        R"(^INFO  (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}) Application version: "0.25" $)").match(lines[0]);
    ASSERT_TRUE(match.hasMatch()) << lines[0].toStdString();
    // Fixed-width text sorts like time; main() picked a zone far from UTC.
    EXPECT_LE(before, match.captured(1));
    EXPECT_GE(after, match.captured(1));

    logger().setLoggingLevel(LevelTrace);
    TLOG_TRACE() << "100%1 of %2";
    TLOG_DEBUG();
    TLOG_WARN();
    TLOG_ERROR();
    TLOG_FATAL();
    ASSERT_EQ(lines.size(), 6);
    EXPECT_EQ(lines[1].mid(30), "100%1 of %2 ");
    const Level expected[] = {LevelInfo, LevelTrace, LevelDebug, LevelWarn, LevelError, LevelFatal};
    for (int i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(Logger::levelFromLogMessage(lines[i]), expected[i]) << lines[i].toStdString();
        EXPECT_EQ(lines[i].indexOf(' ', 6), 29) << lines[i].toStdString();
    }
}

TEST_F(LoggerTest, FilteredStatementsAreNotEvaluated)
{
    int evaluations = 0;
    auto item = [&evaluations] { return ++evaluations; };
    TLOG_DEBUG() << item();
    if (evaluations == 0)
        TLOG_WARN() << item();
    else
        TLOG_ERROR() << "unreachable";
    EXPECT_EQ(evaluations, 1);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_TRUE(lines[0].startsWith("WARN  "));

    logger().setLoggingLevel(LevelOff);
    TLOG_FATAL() << item();
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(lines.size(), 1);
}

TEST(LevelFromLogMessage, NeedsTheExactFiveCharacterText)
{
    const struct { const char* line; Level level; } cases[] = {
        {"WARN  2026", LevelWarn}, {"FATAL", LevelFatal}, {"Warn  2026", LevelOff},
        {"INFOX", LevelOff},       {"INFO", LevelOff},    {"", LevelOff},
    };
    for (const auto& c : cases) {
        bool ok = false;
        EXPECT_EQ(Logger::levelFromLogMessage(c.line, &ok), c.level) << c.line;
        EXPECT_EQ(ok, c.level != LevelOff) << c.line;
    }
}

TEST_F(LoggerTest, DestinationsGetLinesInOrderUntilDestroyInstance)
{
    bool destroyed = false;
    logger().addDestination(DestinationPtr(new Recorder(lines, "second:", &destroyed)));
    logger().setLoggingLevel(LevelTrace);
    TLOG_INFO() << "a";
    TLOG_ERROR() << "b";
    ASSERT_EQ(lines.size(), 4);
    EXPECT_TRUE(lines[0].startsWith("INFO") && lines[1].startsWith("second:INFO"));
    EXPECT_TRUE(lines[2].startsWith("ERROR") && lines[3].startsWith("second:ERROR"));

    Logger::destroyInstance();
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(logger().loggingLevel(), LevelInfo);
    TLOG_WARN() << "goes nowhere";
    EXPECT_EQ(lines.size(), 4);
}

} // namespace
