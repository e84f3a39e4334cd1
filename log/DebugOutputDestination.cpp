#include "DebugOutputDestination.h"

#include "DebugOutput.h"

namespace Log {

void DebugOutputDestination::write(const QString& message, Level)
{
    DebugOutput::output(message);
}

bool DebugOutputDestination::isValid()
{
    return true;
}

} // namespace Log
