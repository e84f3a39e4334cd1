#include "LogTestSupport.h"
#include "RotatingFileStream.h"

#include <QDir>
#include <QTemporaryDir>

#include <sys/stat.h>

namespace {

using Log::RotatingFileStream;

TEST(RotatingFileStream, StartsEmptyAndRotatesWholeLinesIntoPrivateFiles)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("access.log");
    ASSERT_TRUE(writeFile(path, "from the last run\n"));

    // Whatever the umask, as a daemon used to run with none.
    const mode_t previousUmask = ::umask(0);
    {
        RotatingFileStream stream(path, 100, 2);
        EXPECT_TRUE(stream.isOpen());
        EXPECT_EQ(readFile(path), "");
        // The way the WebSocket library's loggers write: a line in pieces, then a flush.
        for (int i = 0; i < 30; ++i)
            stream << "[2026-11-23 11:00:00] " << "[connect] " << "connection " << i << "\n" << std::flush;
        stream << "unfinished" << std::endl;
        stream << "cut off at the end";
    }
    ::umask(previousUmask);

    const QStringList names = QDir(dir.path()).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(names, QStringList({"access.log", "access.log.1", "access.log.2"}));
    for (const QString& name : names)
        EXPECT_EQ(fileMode(dir.filePath(name)), 0640) << name.toStdString();
    EXPECT_LT(readFile(path + ".1").size(), 100 + 50) << "a file holds about maxBytes";

    // Oldest first, the files hold a run of whole lines that ends with the last ones written.
    const QStringList lines =
        QString::fromUtf8(readFile(path + ".2") + readFile(path + ".1") + readFile(path)).split('\n');
    ASSERT_GE(lines.size(), 4);
    EXPECT_EQ(lines.mid(lines.size() - 3), QStringList({"unfinished", "cut off at the end", ""}));
    const int first = lines[0].section(' ', -1).toInt();
    for (int i = 0; i < lines.size() - 3; ++i)
        EXPECT_EQ(lines[i], QString("[2026-11-23 11:00:00] [connect] connection %1").arg(first + i));
}

} // namespace
