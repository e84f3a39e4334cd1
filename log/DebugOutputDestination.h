#pragma once

#include "Destination.h"

namespace Log {

// Every line to standard error as DebugOutput writes it. Qt's own messages go the same way
// from the moment one exists, so that nothing else writes to standard error and waits.
class DebugOutputDestination : public Destination
{
public:
    DebugOutputDestination();
    void write(const QString& message, Level level) override;
    bool isValid() override;
};

} // namespace Log
