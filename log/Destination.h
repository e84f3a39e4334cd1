#pragma once

#include "LogLevel.h"

#include <QSharedPointer>
#include <QString>

namespace Log {

// A sink for complete log lines. Destinations must never throw and must not log themselves:
// they run under the logger's non-recursive write lock.
class Destination
{
public:
    virtual ~Destination();
    virtual void write(const QString& message, Level level) = 0;
    virtual bool isValid() = 0;
};

using DestinationPtr = QSharedPointer<Destination>;

} // namespace Log
