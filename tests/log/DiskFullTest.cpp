// A full disk, simulated with a tmpfs of a few pages in a mount namespace of the test's own.
#include "DestinationFactory.h"
#include "LogTestSupport.h"
#include "RotatingFileStream.h"

#include <QRegularExpression>
#include <QTemporaryDir>

#include <cerrno>
#include <cstring>
#include <sys/mount.h>

namespace {

using namespace Log;

QString numberedLines(const QString& prefix, int count)
{
    QString lines;
    for (int i = 0; i < count; ++i)
        lines += QString("%1 %2\n").arg(prefix).arg(i);
    return lines;
}

TEST(DiskFull, LogsResumeWithANoteOfTheLostLinesOnceThereIsRoomAgain)
{
    if (!qEnvironmentVariableIsSet(freshProcessVariable)) {
        const FreshRun child = runFreshProcess("DiskFull.*", {"unshare", "--mount", "--propagation", "private"});
        if (!child.output.contains("[==========]") || child.output.contains("[  SKIPPED ]"))
            GTEST_SKIP() << "no private mount namespace here:\n" << child.output.toStdString();
        EXPECT_EQ(child.exitCode, 0) << child.output.toStdString();
        return;
    }

    QTemporaryDir dir;
    const QByteArray mountPoint = QFile::encodeName(dir.path());
    if (::mount("tiv-test-disk", mountPoint.constData(), "tmpfs", 0, "size=64k,mode=0700") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs: " << std::strerror(errno);
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { ::umount2(mountPoint.constData(), MNT_DETACH); });

    DestinationPtr appLog = DestinationFactory::MakeFileDestination(
        dir.filePath("app.log"), LogRotationEnabled, MaxSizeBytes(1 << 20), MaxOldLogCount(5));
    RotatingFileStream accessLog(dir.filePath("access.log"), 1 << 20, 2);
    // A first line gives each file a page, which the lines below fill up once the disk is full;
    // the line that no longer fits is lost, part of it written, and so are the three after it.
    int appLines = 0;
    int accessLines = 0;
    appLog->write(QString("app %1").arg(appLines++), LevelInfo);
    accessLog << "access " << accessLines++ << std::endl;
    QFile filler(dir.filePath("filler"));
    ASSERT_TRUE(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    while (filler.write(QByteArray(4096, 'f')) > 0) {
    }

    testing::internal::CaptureStderr();
    while (appLog->isValid() && appLines < 100000)
        appLog->write(QString("app %1").arg(appLines++), LevelInfo);
    while (accessLog.isOpen() && accessLines < 100000)
        accessLog << "access " << accessLines++ << std::endl;
    for (int i = 0; i < 3; ++i) {
        appLog->write("lost", LevelInfo);
        accessLog << "lost" << std::endl;
    }
    EXPECT_TRUE(accessLog.good()) << "a stream in a failed state would drop every later line";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              ("Log: could not write log file " + dir.filePath("app.log") + ": No space left on device\n"
               + "Log: could not write log file " + dir.filePath("access.log") + ": No space left on device\n")
                  .toStdString())
        << "one report per file for the whole outage";

    filler.remove();
    appLog->write("app back", LevelInfo);
    accessLog << "access back" << std::endl;

    // No line is left cut short by the failed write.
    const QString app = QString::fromUtf8(readFile(dir.filePath("app.log")));
    const QString appBefore = numberedLines("app", appLines - 1);
    ASSERT_TRUE(app.startsWith(appBefore)) << app.right(200).toStdString();
    EXPECT_TRUE(QRegularExpression(R"(^WARN  \S{23} Log: lines lost while the file could not be written: 4\napp back\n$)")
                    .match(app.mid(appBefore.size()))
                    .hasMatch())
        << app.mid(appBefore.size()).toStdString();
    const QString access = QString::fromUtf8(readFile(dir.filePath("access.log")));
    EXPECT_TRUE(access == numberedLines("access", accessLines - 1)
                          + "Log: lines lost while the file could not be written: 4\naccess back\n")
        << access.right(200).toStdString();
}

} // namespace
