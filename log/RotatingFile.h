#pragma once

#include "RotationStrategy.h"

#include <QByteArray>
#include <QSharedPointer>
#include <QString>

#include <functional>

namespace Log {

// One log file under a rotation strategy. Each line is written through at once; the file is
// created 0640 and never left world-readable. A line that cannot be written (disk full, file
// gone) is undone, the file is closed, and the next line opens it again, so logging resumes by
// itself once there is room, starting with one note of how many lines were lost.
class RotatingFile
{
public:
    // How the first open treats what the file holds: as the strategy's open mode says, or
    // emptied whatever the strategy would do.
    enum Start
    {
        StrategyDecides,
        Truncate
    };
    // Turns the note about lost lines into a line in the file's own format.
    using NoteFormat = std::function<QString(const QString& note)>;

    RotatingFile(const QString& path, const QSharedPointer<RotationStrategy>& strategy,
                 Start start = StrategyDecides, NoteFormat noteFormat = {});
    ~RotatingFile();
    RotatingFile(const RotatingFile&) = delete;
    RotatingFile& operator=(const RotatingFile&) = delete;

    // One line without its line end.
    void writeLine(const QString& line);
    // The same for text that is already bytes: written as it is, counted as UTF-8.
    void writeLine(const QByteArray& line);

    bool isOpen() const { return fd >= 0; }
    QString path() const { return filePath; }

private:
    void write(const QString& counted, const QByteArray& bytes);
    bool open(int extraFlags);
    void close();
    void rotate();
    void report(const QString& text);

    QString filePath;
    QSharedPointer<RotationStrategy> strategy;
    NoteFormat noteFormat;
    int fd = -1;
    qint64 lostLines = 0;
    // Set once a failure has been reported, so a long outage gives one report, not one per line.
    bool failureReported = false;
};

} // namespace Log
