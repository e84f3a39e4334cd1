#include "SizeRotationStrategy.h"

#include "DebugOutput.h"

#include <QFile>

namespace Log {

SizeRotationStrategy::SizeRotationStrategy(qint64 maxBytes, int backupCount)
    : maxSizeInBytes(maxBytes), backupsCount(qMin(backupCount, MaxBackupCount))
{
}

void SizeRotationStrategy::setInitialInfo(const QFile& file)
{
    fileName = file.fileName();
    currentSizeInBytes = file.size();
}

void SizeRotationStrategy::includeMessageInCalculation(const QString& message)
{
    // Line feeds are not counted, so rotated files end up slightly over the limit.
    currentSizeInBytes += message.toUtf8().size();
}

bool SizeRotationStrategy::shouldRotate()
{
    return currentSizeInBytes > maxSizeInBytes;
}

void SizeRotationStrategy::rotate()
{
    if (backupsCount == 0) {
        if (!QFile::remove(fileName))
            DebugOutput::output(QStringLiteral("Log: backup delete failed ") + fileName);
        return;
    }

    // Shift only the unbroken run name.1, name.2, ...; anything past a gap stays put.
    int lastBackupToMove = 0;
    for (int i = 1; i <= backupsCount; ++i) {
        if (!QFile::exists(backupName(i)))
            break;
        lastBackupToMove = qMin(i, backupsCount - 1);
    }

    for (int i = lastBackupToMove; i >= 1; --i) {
        const QString from = backupName(i);
        const QString to = backupName(i + 1);
        QFile::remove(to);
        if (!QFile::rename(from, to))
            DebugOutput::output(QStringLiteral("Log: could not rename backup ") + from
                                + QStringLiteral(" to ") + to);
    }

    const QString firstBackup = backupName(1);
    if (QFile::exists(firstBackup))
        QFile::remove(firstBackup);
    if (!QFile::rename(fileName, firstBackup))
        DebugOutput::output(QStringLiteral("Log: could not rename log ") + fileName
                            + QStringLiteral(" to ") + firstBackup);
}

QIODevice::OpenModeFlag SizeRotationStrategy::recommendedOpenModeFlag()
{
    return QIODevice::Append;
}

QString SizeRotationStrategy::backupName(int number) const
{
    return fileName + QStringLiteral(".%1").arg(number);
}

} // namespace Log
