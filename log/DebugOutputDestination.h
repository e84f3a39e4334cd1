#pragma once

#include "Destination.h"

namespace Log {

// Every line to standard error, flushed at once.
class DebugOutputDestination : public Destination
{
public:
    void write(const QString& message, Level level) override;
    bool isValid() override;
};

} // namespace Log
