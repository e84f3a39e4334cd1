#pragma once

#include "Destination.h"
#include "DestinationOptions.h"
#include "FunctorDestination.h"

namespace Log {

class DestinationFactory
{
public:
    // Rotation off ignores the size and the count, and empties the file at every start.
    static DestinationPtr MakeFileDestination(const QString& filePath, LogRotationOption rotation,
                                              const MaxSizeBytes& maxSize,
                                              const MaxOldLogCount& backupCount);
    static DestinationPtr MakeDebugOutputDestination();
    static DestinationPtr MakeFunctorDestination(LogFunction function);
};

} // namespace Log
