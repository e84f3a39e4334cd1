#include "DebugOutputDestination.h"

#include "DebugOutput.h"

namespace Log {

DebugOutputDestination::DebugOutputDestination()
{
    DebugOutput::takeOverQtMessages();
}

void DebugOutputDestination::write(const QString& message, Level level)
{
    DebugOutput::output(message, level);
}

bool DebugOutputDestination::isValid()
{
    return true;
}

} // namespace Log
