#include "FunctorDestination.h"

namespace Log {

FunctorDestination::FunctorDestination(LogFunction function) : logFunction(function) {}

void FunctorDestination::write(const QString& message, Level level)
{
    if (logFunction)
        logFunction(message, level);
}

bool FunctorDestination::isValid()
{
    return true;
}

} // namespace Log
