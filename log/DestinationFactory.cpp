#include "DestinationFactory.h"

#include "DebugOutputDestination.h"
#include "FileDestination.h"
#include "NullRotationStrategy.h"
#include "SizeRotationStrategy.h"

namespace Log {

DestinationPtr DestinationFactory::MakeFileDestination(const QString& filePath,
                                                       LogRotationOption rotation,
                                                       const MaxSizeBytes& maxSize,
                                                       const MaxOldLogCount& backupCount)
{
    QSharedPointer<RotationStrategy> strategy;
    if (rotation == LogRotationEnabled)
        strategy = QSharedPointer<SizeRotationStrategy>::create(maxSize.size, backupCount.count);
    else
        strategy = QSharedPointer<NullRotationStrategy>::create();
    return DestinationPtr(new FileDestination(filePath, strategy));
}

DestinationPtr DestinationFactory::MakeDebugOutputDestination()
{
    return DestinationPtr(new DebugOutputDestination);
}

DestinationPtr DestinationFactory::MakeFunctorDestination(LogFunction function)
{
    return DestinationPtr(new FunctorDestination(function));
}

} // namespace Log
