#pragma once

#include "RotationStrategy.h"

#include <QString>

namespace Log {

// Rotates once more bytes of message text than the maximum have been counted, keeping up
// to ten numbered backups (name.1 is the newest).
class SizeRotationStrategy : public RotationStrategy
{
public:
    static constexpr int MaxBackupCount = 10;

    // Larger counts are capped; 0 keeps no backup and a negative count behaves like 1.
    SizeRotationStrategy(qint64 maxBytes, int backupCount);

    void setInitialInfo(const QFile& file) override;
    void includeMessageInCalculation(const QString& message) override;
    bool shouldRotate() override;
    void rotate() override;
    QIODevice::OpenModeFlag recommendedOpenModeFlag() override;

private:
    QString backupName(int number) const;

    QString fileName;
    qint64 currentSizeInBytes = 0;
    qint64 maxSizeInBytes;
    int backupsCount;
};

} // namespace Log
