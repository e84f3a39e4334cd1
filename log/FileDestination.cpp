#include "FileDestination.h"

#include "DebugOutput.h"

namespace Log {

FileDestination::FileDestination(const QString& filePath,
                                 const QSharedPointer<RotationStrategy>& strategy)
    : rotationStrategy(strategy)
{
    file.setFileName(filePath);
    if (!open())
        DebugOutput::report(QStringLiteral("Log: could not open log file ") + filePath);
    attachStream();
    rotationStrategy->setInitialInfo(file);
}

void FileDestination::write(const QString& message, Level)
{
    rotationStrategy->includeMessageInCalculation(message);
    if (rotationStrategy->shouldRotate()) {
        outputStream.setDevice(nullptr);
        file.close();
        rotationStrategy->rotate();
        if (!open())
            DebugOutput::report(QStringLiteral("Log: could not reopen log file ") + file.fileName());
        rotationStrategy->setInitialInfo(file);
        attachStream();
    }
    // A closed file would only add a Qt warning per line; the line is lost either way.
    if (!file.isOpen())
        return;
    outputStream << message << '\n';
    outputStream.flush();
}

bool FileDestination::isValid()
{
    return file.isOpen();
}

bool FileDestination::open()
{
    return file.open(QIODevice::WriteOnly | QIODevice::Text
                     | rotationStrategy->recommendedOpenModeFlag());
}

void FileDestination::attachStream()
{
    // setDevice() puts the codec back to the locale's, so it is set after every attach.
    outputStream.setDevice(&file);
    outputStream.setCodec("UTF-8");
}

} // namespace Log
