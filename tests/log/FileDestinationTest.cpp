#include "DestinationFactory.h"
#include "LogTestSupport.h"

#include <QDir>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTextCodec>

#include <map>
#include <sys/stat.h>

namespace {

using namespace Log;
using Files = std::map<QString, QByteArray>;

// The files in the directory with their contents.
Files files(const QTemporaryDir& dir)
{
    Files found;
    for (const QFileInfo& file : QDir(dir.path()).entryInfoList(QDir::Files))
        found[file.fileName()] = readFile(file.filePath());
    return found;
}

TEST(FileDestination, RotationFollowsTheUtf8SizeKeepsAtMostTenBackupsInAnUnbrokenRunAndNoneWorldReadable)
{
    // With a limit of 0 every line rotates first, so line n ends up in backup 13 - n.
    const QStringList thirteen = QString("1 2 3 4 5 6 7 8 9 10 11 12 13").split(' ');
    const auto keeping = [](int backups) {
        Files files = {{"app.log", "13\n"}};
        for (int n = 1; n <= backups; ++n)
            files[QString("app.log.%1").arg(n)] = QByteArray::number(13 - n) + "\n";
        return files;
    };
    const struct
    {
        Files before;
        qint64 maxSize; // no rotation when negative
        int backups;
        QStringList lines;
        Files after;
    } cases[] = {
        // Six bytes are exactly the limit, in any locale.
        {{}, 6, 5, {u8"äöü", "x", u8"é"}, {{"app.log", u8"x\né\n"}, {"app.log.1", u8"äöü\n"}}},
        {{{"app.log", QByteArray(70000, 'a')}}, 65536, 5, {"first"},
         {{"app.log", "first\n"}, {"app.log.1", QByteArray(70000, 'a')}}},
        {{{"app.log", "live\n"}, {"app.log.1", "one\n"}, {"app.log.3", "three\n"}}, 0, 5, {"x"},
         {{"app.log", "x\n"}, {"app.log.1", "live\n"}, {"app.log.2", "one\n"}, {"app.log.3", "three\n"}}},
        {{}, 0, 0, thirteen, keeping(0)},
        {{}, 0, -3, thirteen, keeping(1)},
        {{}, 0, 25, thirteen, keeping(10)},
        // Without rotation the file starts empty.
        {{{"app.log", "old\n"}}, -1, 5, {"a", "b"}, {{"app.log", "a\nb\n"}}},
    };
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    // Whatever the umask, as a daemon used to run with none.
    const auto restoreUmask = qScopeGuard([previous = ::umask(0)] { ::umask(previous); });
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(::testing::Message() << "case " << i);
        const QTemporaryDir dir;
        // As an older run left them, its live log readable by anyone.
        for (const auto& [name, bytes] : cases[i].before) {
            ASSERT_TRUE(writeFile(dir.filePath(name), bytes));
            ASSERT_EQ(::chmod(QFile::encodeName(dir.filePath(name)).constData(), name == "app.log" ? 0644 : 0640), 0);
        }
        const DestinationPtr destination = DestinationFactory::MakeFileDestination(
            dir.filePath("app.log"), cases[i].maxSize < 0 ? LogRotationDisabled : LogRotationEnabled,
            MaxSizeBytes(cases[i].maxSize), MaxOldLogCount(cases[i].backups));
        for (const QString& line : cases[i].lines)
            destination->write(line, LevelInfo);
        EXPECT_EQ(files(dir), cases[i].after);
        for (const auto& [name, bytes] : cases[i].after)
            EXPECT_EQ(fileMode(dir.filePath(name)), 0640) << name.toStdString();
    }
    QTextCodec::setCodecForLocale(nullptr);
}

} // namespace
