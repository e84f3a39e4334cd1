#include "FileDestination.h"

#include "Log.h"

namespace Log {

FileDestination::FileDestination(const QString& filePath,
                                 const QSharedPointer<RotationStrategy>& strategy)
    : file(filePath, strategy, RotatingFile::StrategyDecides,
           [](const QString& note) { return Logger::formatLine(LevelWarn, note); })
{
}

void FileDestination::write(const QString& message, Level)
{
    file.writeLine(message);
}

bool FileDestination::isValid()
{
    return file.isOpen();
}

} // namespace Log
