#include "DestinationFactory.h"
#include "LogTestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTextCodec>

#include <gtest/gtest.h>

namespace {

using namespace Log;

class FileDestinationTest : public ::testing::Test
{
protected:
    QString path(const QString& name = "app.log") const { return dir.filePath(name); }
    QByteArray local(const QString& name = "app.log") const { return path(name).toLocal8Bit(); }
    QByteArray contents(const QString& name = "app.log") const { return readFile(path(name)); }
    bool exists(const QString& name) const { return QFile::exists(path(name)); }
    void createFile(const QString& name, const QByteArray& bytes) const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }
    // A non-empty directory can be neither deleted nor renamed over, even by root.
    void createBlocker(const QString& name) const { ASSERT_TRUE(QDir(dir.path()).mkpath(name + "/keep")); }

    DestinationPtr make(qint64 maxSize, int backups, LogRotationOption rotation = LogRotationEnabled,
                        const QString& name = "app.log") const
    {
        return DestinationFactory::MakeFileDestination(path(name), rotation, MaxSizeBytes(maxSize),
                                                       MaxOldLogCount(backups));
    }

    QTemporaryDir dir;
};

void write(const DestinationPtr& destination, const QString& line) { destination->write(line, LevelInfo); }

TEST_F(FileDestinationTest, RotatesOnlyOnceTheLimitIsExceeded)
{
    auto destination = make(10, 5);
    write(destination, "0123456789");
    EXPECT_FALSE(exists("app.log.1"));
    write(destination, "x");
    EXPECT_EQ(contents("app.log.1"), "0123456789\n");
    EXPECT_EQ(contents(), "x\n");
}

TEST_F(FileDestinationTest, ExistingFileIsKeptAndCountedWithRotationEmptiedWithout)
{
    createFile("app.log", QByteArray(70000, 'a'));
    auto rotating = make(65536, 5);
    EXPECT_EQ(contents().size(), 70000);
    write(rotating, "first");
    EXPECT_EQ(contents("app.log.1").size(), 70000);
    EXPECT_EQ(contents(), "first\n");

    auto plain = make(1, 5, LogRotationDisabled, "plain.log");
    write(plain, "old");
    plain = make(1, 5, LogRotationDisabled, "plain.log");
    EXPECT_EQ(contents("plain.log"), "");
    write(plain, "a");
    write(plain, "b");
    EXPECT_EQ(contents("plain.log"), "a\nb\n");
    EXPECT_FALSE(exists("plain.log.1"));
}

TEST_F(FileDestinationTest, BackupShiftStopsAtTheFirstGap)
{
    createFile("app.log", "live\n");
    createFile("app.log.1", "one\n");
    createFile("app.log.3", "three\n");
    write(make(0, 5), "x");
    EXPECT_EQ(contents(), "x\n");
    EXPECT_EQ(contents("app.log.1"), "live\n");
    EXPECT_EQ(contents("app.log.2"), "one\n");
    EXPECT_EQ(contents("app.log.3"), "three\n");
    EXPECT_FALSE(exists("app.log.4"));
}

TEST_F(FileDestinationTest, BackupCountBounds)
{
    // With a limit of 0 every line rotates first, so line n ends up in backup (13 - n).
    const struct { int requested; int kept; } cases[] = {{0, 0}, {-3, 1}, {1, 1}, {25, 10}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.requested);
        QDir(dir.path()).removeRecursively();
        QDir().mkpath(dir.path());
        auto destination = make(0, c.requested);
        for (int n = 1; n <= 13; ++n)
            write(destination, QString("line %1").arg(n));
        EXPECT_EQ(contents(), "line 13\n");
        for (int backup = 1; backup <= c.kept; ++backup)
            EXPECT_EQ(contents(QString("app.log.%1").arg(backup)), QString("line %1\n").arg(13 - backup).toUtf8());
        EXPECT_FALSE(exists(QString("app.log.%1").arg(c.kept + 1)));
    }
}

TEST_F(FileDestinationTest, CountsUtf8BytesAndWritesUtf8WhateverTheLocale)
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    auto destination = make(6, 5);
    write(destination, u8"äöü"); // 6 bytes: exactly the limit
    EXPECT_FALSE(exists("app.log.1"));
    write(destination, "x");
    write(destination, u8"é");
    QTextCodec::setCodecForLocale(nullptr);
    EXPECT_EQ(contents("app.log.1"), u8"äöü\n");
    EXPECT_EQ(contents(), u8"x\né\n");
}

TEST_F(FileDestinationTest, FailedRotationIsReportedAndRetriedOnEveryLine)
{
    createFile("app.log", "old\n");
    createBlocker("app.log.1");
    auto destination = make(1, 1);
    StderrCapture capture;
    write(destination, "a");
    write(destination, "b");
    const QByteArray report = "Log: could not rename log " + local() + " to " + local("app.log.1");
    EXPECT_EQ(capture.finish(), report + report);
    EXPECT_EQ(contents(), "old\na\nb\n");

    QDir(path("app.log.1")).removeRecursively();
    write(destination, "c");
    EXPECT_EQ(contents("app.log.1"), "old\na\nb\n");
    EXPECT_EQ(contents(), "c\n");
}

TEST_F(FileDestinationTest, BlockedBackupIsReportedAndTheLogStillMoves)
{
    createFile("app.log", "live\n");
    createFile("app.log.1", "one\n");
    createBlocker("app.log.2");
    StderrCapture capture;
    write(make(0, 2), "x");
    EXPECT_EQ(capture.finish(), "Log: could not rename backup " + local("app.log.1") + " to " + local("app.log.2"));
    EXPECT_EQ(contents("app.log.1"), "live\n");
    EXPECT_EQ(contents(), "x\n");

    auto withoutBackups = make(1, 0, LogRotationEnabled, "solo.log");
    QFile::remove(path("solo.log"));
    StderrCapture deleteFailure;
    write(withoutBackups, "bb");
    EXPECT_EQ(deleteFailure.finish(), "Log: backup delete failed " + local("solo.log"));
    EXPECT_EQ(contents("solo.log"), "bb\n");
}

TEST_F(FileDestinationTest, UnopenableFileDropsLinesUntilALaterRotationReopensIt)
{
    StderrCapture neverOpened;
    auto unopened = make(100, 5, LogRotationEnabled, "missing/app.log");
    write(unopened, "lost");
    EXPECT_EQ(neverOpened.finish(), "Log: could not open log file " + local("missing/app.log"));
    EXPECT_FALSE(unopened->isValid());

    QDir(dir.path()).mkpath("logs");
    auto destination = make(1, 5, LogRotationEnabled, "logs/app.log");
    const QByteArray renameReport = "Log: could not rename log " + local("logs/app.log") + " to "
                                    + local("logs/app.log.1");
    QDir(path("logs")).removeRecursively();
    StderrCapture lost;
    write(destination, "aa");
    EXPECT_EQ(lost.finish(), renameReport + "Log: could not reopen log file " + local("logs/app.log"));
    EXPECT_FALSE(destination->isValid());

    QDir(dir.path()).mkpath("logs");
    StderrCapture back;
    write(destination, "bb");
    EXPECT_EQ(back.finish(), renameReport);
    EXPECT_TRUE(destination->isValid());
    EXPECT_EQ(contents("logs/app.log"), "bb\n");
}

} // namespace
