#include "FunctorDestination.h"

namespace Log {

FunctorDestination::FunctorDestination(LogFunction function) : logFunction(function) {}

FunctorDestination::FunctorDestination(QObject* receiver, const char* method)
{
    connect(this, SIGNAL(logMessageReady(QString,int)), receiver, method, Qt::QueuedConnection);
}

void FunctorDestination::write(const QString& message, Level level)
{
    if (logFunction)
        logFunction(message, level);
    if (level > LevelTrace)
        emit logMessageReady(message, level);
}

bool FunctorDestination::isValid()
{
    return true;
}

} // namespace Log
