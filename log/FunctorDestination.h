#pragma once

#include "Destination.h"

namespace Log {

using LogFunction = void (*)(const QString& message, Level level);

// Hands every line to a function, on the logging thread under the log lock, so the function
// must not log.
class FunctorDestination : public Destination
{
public:
    explicit FunctorDestination(LogFunction function);

    void write(const QString& message, Level level) override;
    bool isValid() override;

private:
    LogFunction logFunction;
};

} // namespace Log
