#pragma once

#include "Destination.h"
#include "RotatingFile.h"
#include "RotationStrategy.h"

#include <QSharedPointer>

namespace Log {

// Writes UTF-8 lines to one file, each written through at once, and lets its strategy rotate
// the file. Failures are reported on standard error; lost lines are counted and noted in the
// file once it can be written again.
class FileDestination : public Destination
{
public:
    FileDestination(const QString& filePath, const QSharedPointer<RotationStrategy>& rotationStrategy);

    void write(const QString& message, Level level) override;
    bool isValid() override;

private:
    RotatingFile file;
};

} // namespace Log
