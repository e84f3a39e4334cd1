#pragma once

#include "Destination.h"

#include <QObject>

namespace Log {

using LogFunction = void (*)(const QString& message, Level level);

// Hands lines to a function (every level, on the logging thread under the log lock, so the
// function must not log) or as a signal to a receiver (queued, and only above LevelTrace,
// which keeps the busiest level off the receiver's event queue).
class FunctorDestination : public QObject, public Destination
{
    Q_OBJECT
public:
    explicit FunctorDestination(LogFunction function);
    FunctorDestination(QObject* receiver, const char* method);

    void write(const QString& message, Level level) override;
    bool isValid() override;

signals:
    void logMessageReady(const QString& message, int level);

private:
    LogFunction logFunction = nullptr;
};

} // namespace Log
