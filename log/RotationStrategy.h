#pragma once

#include <QIODevice>

class QFile;
class QString;

namespace Log {

// Decides when one log file is rotated and how. The file destination calls these in order:
// setInitialInfo after every open, includeMessageInCalculation and shouldRotate per line,
// rotate with the file closed.
class RotationStrategy
{
public:
    virtual ~RotationStrategy() = default;
    virtual void setInitialInfo(const QFile& file) = 0;
    virtual void includeMessageInCalculation(const QString& message) = 0;
    virtual bool shouldRotate() = 0;
    virtual void rotate() = 0;
    virtual QIODevice::OpenModeFlag recommendedOpenModeFlag() = 0;
};

} // namespace Log
