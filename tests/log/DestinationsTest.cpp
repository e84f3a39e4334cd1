#include "DestinationFactory.h"
#include "Log.h"
#include "LogTestSupport.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using namespace Log;

TEST(DebugOutputDestination, WritesEachLineWithALineFeed)
{
    auto console = DestinationFactory::MakeDebugOutputDestination();
    StderrCapture capture;
    console->write("hello", LevelInfo);
    console->write(QString(), LevelInfo);
    EXPECT_EQ(capture.finish(), "hello\n\n");
}

QList<QPair<QString, int>> calls;
void record(const QString& message, Level level) { calls.append({message, level}); }

TEST(FunctorDestination, FunctionGetsEveryLevelSignalOnlyAboveTrace)
{
    auto destination = DestinationFactory::MakeFunctorDestination(&record);
    auto* functor = qobject_cast<FunctorDestination*>(dynamic_cast<QObject*>(destination.data()));
    ASSERT_TRUE(functor);
    EXPECT_STREQ(functor->metaObject()->className(), "Log::FunctorDestination");
    EXPECT_EQ(functor->qt_metacast("Destination"), static_cast<void*>(destination.data()));

    QSignalSpy emitted(functor, &FunctorDestination::logMessageReady);
    destination->write("t", LevelTrace);
    destination->write("f", LevelFatal);
    EXPECT_EQ(calls, (QList<QPair<QString, int>>{{"t", LevelTrace}, {"f", LevelFatal}}));
    ASSERT_EQ(emitted.count(), 1);
    EXPECT_EQ(emitted[0], (QVariantList{"f", int(LevelFatal)}));
}

class Receiver : public QObject
{
    Q_OBJECT
signals:
    void line(const QString& message, int level);
};

TEST(FunctorDestination, ReceiverGetsLinesAboveTraceQueued)
{
    Receiver receiver;
    QSignalSpy received(&receiver, &Receiver::line);
    auto destination = DestinationFactory::MakeFunctorDestination(&receiver, SIGNAL(line(QString,int)));
    destination->write("t", LevelTrace);
    destination->write("d", LevelDebug);
    EXPECT_EQ(received.count(), 0); // nothing before the event loop runs
    ASSERT_TRUE(received.wait(10000));
    ASSERT_EQ(received.count(), 1);
    EXPECT_EQ(received[0], (QVariantList{"d", int(LevelDebug)}));
}

class LoggerWithDestinations : public ::testing::Test
{
protected:
    void TearDown() override { Logger::destroyInstance(); }
    QTemporaryDir dir;
};

TEST_F(LoggerWithDestinations, LinesFromManyThreadsStayWholeAcrossRotations)
{
    const QString path = dir.filePath("app.log");
    Logger::instance().addDestination(DestinationFactory::MakeFileDestination(
        path, LogRotationEnabled, MaxSizeBytes(8192), MaxOldLogCount(10)));
    const int threadCount = 4, linesPerThread = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < linesPerThread; ++i)
                TLOG_WARN() << "thread" << t << "line" << i;
        });
    for (std::thread& thread : threads)
        thread.join();
    Logger::destroyInstance(); // closes the file

    QByteArray all = readFile(path);
    for (int backup = 1; QFile::exists(path + QString(".%1").arg(backup)); ++backup)
        all += readFile(path + QString(".%1").arg(backup));
    const QList<QByteArray> lines = all.split('\n');
    ASSERT_EQ(lines.size(), threadCount * linesPerThread + 1);
    const QRegularExpression whole(R"(^WARN  \S{23} thread \d line \d+ $)");
    for (const QByteArray& line : lines.mid(0, lines.size() - 1))
        ASSERT_TRUE(whole.match(QString::fromUtf8(line)).hasMatch()) << line.toStdString();
}

} // namespace

#include "DestinationsTest.moc"
