#include "RotatingFile.h"

#include "DebugOutput.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Log {

namespace {

const mode_t privateMode = 0640;

QString errorText(int error)
{
    char buffer[256];
    return QString::fromLocal8Bit(strerror_r(error, buffer, sizeof buffer));
}

int openFlagsFor(QIODevice::OpenModeFlag flag)
{
    if (flag == QIODevice::Truncate)
        return O_TRUNC;
    return flag == QIODevice::Append ? O_APPEND : 0;
}

// Writes all of `bytes`; false with errno set when the file took less, `written` telling how
// much it did take.
bool writeAll(int fd, const QByteArray& bytes, qint64& written)
{
    written = 0;
    while (written < bytes.size()) {
        const ssize_t took = ::write(fd, bytes.constData() + written, static_cast<size_t>(bytes.size() - written));
        if (took < 0 && errno == EINTR)
            continue;
        if (took <= 0) {
            if (took == 0)
                errno = ENOSPC;
            return false;
        }
        written += took;
    }
    return true;
}

} // namespace

RotatingFile::RotatingFile(const QString& path, const QSharedPointer<RotationStrategy>& rotationStrategy,
                           Start start, NoteFormat format)
    : filePath(path), strategy(rotationStrategy), noteFormat(std::move(format))
{
    const int startFlags =
        start == Truncate ? O_TRUNC : openFlagsFor(strategy->recommendedOpenModeFlag());
    if (!open(startFlags))
        report(QStringLiteral("Log: could not open log file ") + filePath);
    strategy->setInitialInfo(QFile(filePath));
}

RotatingFile::~RotatingFile()
{
    close();
}

void RotatingFile::writeLine(const QString& line)
{
    write(line, line.toUtf8());
}

void RotatingFile::writeLine(const QByteArray& line)
{
    write(QString::fromUtf8(line), line);
}

void RotatingFile::write(const QString& counted, const QByteArray& bytes)
{
    // After a failure the file is tried again with every line; appending, so nothing is lost
    // whatever the strategy would do at a first open.
    if (!isOpen()) {
        if (!open(O_APPEND)) {
            ++lostLines;
            return;
        }
        strategy->setInitialInfo(QFile(filePath));
    }

    QString note;
    if (lostLines > 0) {
        note = QStringLiteral("Log: lines lost while the file could not be written: %1").arg(lostLines);
        if (noteFormat)
            note = noteFormat(note);
        strategy->includeMessageInCalculation(note);
    }
    strategy->includeMessageInCalculation(counted);
    if (strategy->shouldRotate()) {
        rotate();
        if (!isOpen()) {
            ++lostLines;
            return;
        }
    }

    QByteArray text;
    text.reserve(bytes.size() + note.size() + 2);
    if (!note.isEmpty())
        text += note.toUtf8() + '\n';
    text += bytes + '\n';

    qint64 written = 0;
    if (writeAll(fd, text, written)) {
        lostLines = 0;
        failureReported = false;
        return;
    }
    const int error = errno;
    // A line cut short would run into the next one written; the space it took is given back.
    // The fragment ends where the write left the file position.
    const off_t end = written > 0 ? ::lseek(fd, 0, SEEK_CUR) : -1;
    if (end >= written && ::ftruncate(fd, end - written) != 0) {
        // Nothing more can be done; the fragment stays.
    }
    close();
    ++lostLines;
    report(QStringLiteral("Log: could not write log file %1: %2").arg(filePath, errorText(error)));
}

bool RotatingFile::open(int extraFlags)
{
    fd = ::open(QFile::encodeName(filePath).constData(), O_WRONLY | O_CREAT | O_CLOEXEC | extraFlags,
                privateMode);
    if (fd < 0)
        return false;
    // A file left by an older run may still be readable by everyone.
    struct stat status;
    if (::fstat(fd, &status) == 0 && (status.st_mode & S_IRWXO))
        ::fchmod(fd, status.st_mode & 07770);
    return true;
}

void RotatingFile::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

void RotatingFile::rotate()
{
    close();
    strategy->rotate();
    if (!open(openFlagsFor(strategy->recommendedOpenModeFlag())))
        report(QStringLiteral("Log: could not reopen log file ") + filePath);
    strategy->setInitialInfo(QFile(filePath));
}

void RotatingFile::report(const QString& text)
{
    if (failureReported)
        return;
    failureReported = true;
    DebugOutput::output(text);
}

} // namespace Log
