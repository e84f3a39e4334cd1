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

// Fills the file system under `path` and frees it again.
class Filler
{
public:
    explicit Filler(const QString& path) : file(path) {}
    bool fill()
    {
        const QByteArray page(4096, 'f');
        if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
            return false;
        while (file.write(page) == page.size()) {
        }
        return file.error() == QFile::ResourceError;
    }
    void free() { file.remove(); }

private:
    QFile file;
};

QString expectedLines(const QString& prefix, int from, int to)
{
    QString lines;
    for (int i = from; i < to; ++i)
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
    struct Unmount
    {
        const QByteArray& path;
        ~Unmount() { ::umount2(path.constData(), MNT_DETACH); }
    } unmount{mountPoint};

    DestinationPtr appLog = DestinationFactory::MakeFileDestination(
        dir.filePath("app.log"), LogRotationEnabled, MaxSizeBytes(1 << 20), MaxOldLogCount(5));
    RotatingFileStream accessLog(dir.filePath("access.log"), 1 << 20, 2);
    // A first line gives each file a page, which the lines below fill up after the disk is full;
    // the line that no longer fits is lost, part of it written, and so are the three after it.
    int appLines = 0;
    appLog->write(QString("app %1").arg(appLines++), LevelInfo);
    int accessLines = 0;
    accessLog << "access " << accessLines++ << std::endl;
    Filler filler(dir.filePath("filler"));
    ASSERT_TRUE(filler.fill());

    testing::internal::CaptureStderr();
    while (appLog->isValid() && appLines < 100000)
        appLog->write(QString("app %1").arg(appLines++), LevelInfo);
    while (accessLog.isOpen() && accessLines < 100000)
        accessLog << "access " << accessLines++ << std::endl;
    for (int i = 0; i < 3; ++i) {
        appLog->write("lost", LevelInfo);
        accessLog << "lost" << std::endl;
    }
    EXPECT_EQ(capturedStderr().toStdString(),
              ("Log: could not write log file " + dir.filePath("app.log") + ": No space left on device\n"
               + "Log: could not write log file " + dir.filePath("access.log") + ": No space left on device\n")
                  .toStdString())
        << "one report per file for the whole outage";

    filler.free();
    appLog->write("app back", LevelInfo);
    accessLog << "access back" << std::endl;
    EXPECT_TRUE(appLog->isValid() && accessLog.isOpen());

    // No line is left cut short by the failed write.
    const QString app = QString::fromUtf8(readFile(dir.filePath("app.log")));
    const QString appExpected = expectedLines("app", 0, appLines - 1);
    ASSERT_TRUE(app.startsWith(appExpected)) << app.right(200).toStdString();
    EXPECT_TRUE(QRegularExpression(R"(^WARN  \S{23} Log: lines lost while the file could not be written: 4\napp back\n$)")
                    .match(app.mid(appExpected.size()))
                    .hasMatch())
        << app.mid(appExpected.size()).toStdString();
    EXPECT_EQ(readFile(dir.filePath("access.log")).toStdString(),
              (expectedLines("access", 0, accessLines - 1)
               + "Log: lines lost while the file could not be written: 4\naccess back\n")
                  .toStdString());
}

} // namespace
