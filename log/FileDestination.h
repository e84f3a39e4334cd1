#pragma once

#include "Destination.h"
#include "RotationStrategy.h"

#include <QFile>
#include <QSharedPointer>
#include <QTextStream>

namespace Log {

// Writes UTF-8 lines to one file, flushing each, and lets its strategy rotate the file.
// A file that cannot be opened is reported once on standard error; lines are then dropped.
class FileDestination : public Destination
{
public:
    FileDestination(const QString& filePath, const QSharedPointer<RotationStrategy>& rotationStrategy);

    void write(const QString& message, Level level) override;
    bool isValid() override;

private:
    bool open();
    void attachStream();

    QFile file;
    QTextStream outputStream;
    QSharedPointer<RotationStrategy> rotationStrategy;
};

} // namespace Log
