#include "DestinationFactory.h"
#include "Log.h"
#include "LogTestSupport.h"

#include <QRegularExpression>
#include <QTemporaryFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Log;

QByteArray identity(int fd)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return "<unknown>";
    return QByteArray::number(qulonglong(status.st_dev)) + ':' + QByteArray::number(qulonglong(status.st_ino));
}

// Descriptor 2 is a pipe the test reads, without waiting, for as long as the test runs.
class StandardErrorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(pipe(ends), 0);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        savedStderr = dup(STDERR_FILENO);
        dup2(ends[1], STDERR_FILENO);
        hadJournal = qEnvironmentVariableIsSet("JOURNAL_STREAM");
        savedJournal = qgetenv("JOURNAL_STREAM");
        qunsetenv("JOURNAL_STREAM");
    }
    void TearDown() override
    {
        dup2(savedStderr, STDERR_FILENO);
        close(savedStderr);
        close(ends[0]);
        close(ends[1]);
        if (hadJournal)
            qputenv("JOURNAL_STREAM", savedJournal);
        else
            qunsetenv("JOURNAL_STREAM");
        Logger::destroyInstance();
    }

    QByteArray drain()
    {
        QByteArray read;
        char buffer[4096];
        ssize_t got;
        while ((got = ::read(ends[0], buffer, sizeof buffer)) > 0)
            read.append(buffer, int(got));
        return read;
    }

    int ends[2] = {-1, -1};
    int savedStderr = -1;
    bool hadJournal = false;
    QByteArray savedJournal;
};

void writeEveryLevel(Destination& destination)
{
    const std::pair<Level, const char*> levels[] = {{LevelTrace, "trace"}, {LevelDebug, "debug"},
                                                    {LevelInfo, "info"},   {LevelWarn, "warn"},
                                                    {LevelError, "error"}, {LevelFatal, "fatal"}};
    for (const auto& [level, text] : levels)
        destination.write(text, level);
    destination.write("first\nsecond", LevelWarn);
    qDebug() << "from Qt";
    qWarning() << "warned by Qt";
}

TEST_F(StandardErrorTest, LinesCarryTheirPriorityOnlyWhenStandardErrorIsTheJournal)
{
    const DestinationPtr destination = DestinationFactory::MakeDebugOutputDestination();
    static QStringList fileLines;
    fileLines.clear();
    Logger::instance().addDestination(
        DestinationFactory::MakeFunctorDestination([](const QString& line, Level) { fileLines << line; }));

    qputenv("JOURNAL_STREAM", identity(STDERR_FILENO));
    writeEveryLevel(*destination);
    EXPECT_EQ(drain().toStdString(), "<7>trace\n<7>debug\n<6>info\n<4>warn\n<3>error\n<2>fatal\n"
                                     "<4>first\n<4>second\n<7>from Qt\n<4>warned by Qt\n");
    EXPECT_TRUE(fileLines.isEmpty()) << "Qt's messages stay off the log file";

    QTemporaryFile other;
    ASSERT_TRUE(other.open());
    const QByteArray plain = "trace\ndebug\ninfo\nwarn\nerror\nfatal\nfirst\nsecond\nfrom Qt\nwarned by Qt\n";
    for (const QByteArray& stream : {identity(other.handle()), identity(STDERR_FILENO) + "0",
                                     QByteArray("journal"), QByteArray()}) {
        if (stream.isEmpty())
            qunsetenv("JOURNAL_STREAM");
        else
            qputenv("JOURNAL_STREAM", stream);
        writeEveryLevel(*destination);
        EXPECT_EQ(drain().toStdString(), plain.toStdString()) << "JOURNAL_STREAM=" << stream.toStdString();
    }
}

TEST_F(StandardErrorTest, APipeNobodyReadsNeverHoldsTheLoggerUpAndTheLinesLostAreCounted)
{
    const DestinationPtr destination = DestinationFactory::MakeDebugOutputDestination();
    // Several times what a pipe holds; a write that waited would never return.
    const int total = 5000;
    const QString filler(100, QLatin1Char('x'));
    for (int i = 0; i < total; ++i)
        destination->write(QStringLiteral("line %1 %2").arg(i).arg(filler), LevelInfo);

    QByteArray seen = drain();
    destination->write("after", LevelInfo);
    seen += drain();
    QList<QByteArray> lines = seen.split('\n');
    ASSERT_EQ(lines.takeLast(), "") << "ends with a whole line";
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines.takeLast(), "after");
    const QRegularExpressionMatch count =
        QRegularExpression(R"(^Log: (\d+) line\(s\) not written to standard error\.$)").match(lines.takeLast());
    ASSERT_TRUE(count.hasMatch());
    for (int i = 0; i < lines.size(); ++i)
        ASSERT_EQ(lines[i], QStringLiteral("line %1 %2").arg(i).arg(filler).toLatin1());
    EXPECT_EQ(lines.size() + count.captured(1).toInt(), total);

    destination->write("and on", LevelInfo);
    EXPECT_EQ(drain(), "and on\n") << "counted once";
}

} // namespace
