#include "Log.h"

#include <QDateTime>
#include <QVector>

#include <exception>
#include <mutex>

namespace Log {

namespace {

const QString timestampFormat = QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz");

Logger* theLogger = nullptr;

const char* levelToText(Level level)
{
    switch (level) {
    case LevelTrace: return "TRACE";
    case LevelDebug: return "DEBUG";
    case LevelInfo: return "INFO ";
    case LevelWarn: return "WARN ";
    case LevelError: return "ERROR";
    case LevelFatal: return "FATAL";
    case LevelOff: return "";
    }
    Q_ASSERT_X(false, "LevelToText", "!\"bad log level\"");
    return "";
}

} // namespace

class LoggerImpl
{
public:
    LoggerImpl() { destinations.reserve(2); }

    // std::mutex rather than QMutex: Qt's contended lock path is invisible to the thread
    // sanitizer, which then reports every destination's state as racing.
    std::mutex logMutex;
    Level level = LevelInfo;
    QVector<DestinationPtr> destinations;
};

Logger::Logger() : d(new LoggerImpl) {}

Logger::~Logger()
{
    delete d;
}

Logger& Logger::instance()
{
    // Unguarded on purpose: start-up makes the first call before any other thread exists.
    if (!theLogger)
        theLogger = new Logger;
    return *theLogger;
}

void Logger::destroyInstance()
{
    delete theLogger;
    theLogger = nullptr;
}

Level Logger::levelFromLogMessage(const QString& line, bool* succeeded)
{
    if (succeeded)
        *succeeded = true;
    for (int value = LevelTrace; value <= LevelFatal; ++value) {
        const Level level = static_cast<Level>(value);
        if (line.startsWith(QLatin1String(levelToText(level)), Qt::CaseSensitive))
            return level;
    }
    if (succeeded)
        *succeeded = false;
    return LevelOff;
}

void Logger::addDestination(DestinationPtr destination)
{
    Q_ASSERT_X(destination.data(), "addDestination", "destination.data()");
    d->destinations.push_back(destination);
}

void Logger::setLoggingLevel(Level level)
{
    d->level = level;
}

Level Logger::loggingLevel() const
{
    return d->level;
}

void Logger::enqueueWrite(const QString& message, Level level)
{
    write(message, level);
}

void Logger::write(const QString& message, Level level)
{
    std::lock_guard<std::mutex> lock(d->logMutex);
    for (const DestinationPtr& destination : qAsConst(d->destinations))
        destination->write(message, level);
}

Logger::Helper::Helper(Level logLevel) : level(logLevel), qtDebug(&buffer) {}

Logger::Helper::~Helper()
{
    try {
        writeToLog();
    } catch (const std::exception&) {
        Q_ASSERT_X(false, "~Helper", "!\"exception in logger helper destructor\"");
    }
}

void Logger::Helper::writeToLog()
{
    // The message goes in last, so a "%1" inside it is never substituted.
    const QString line = QStringLiteral("%1 %2 %3")
                             .arg(QLatin1String(levelToText(level)))
                             .arg(QDateTime::currentDateTime().toString(timestampFormat))
                             .arg(buffer);
    Logger::instance().enqueueWrite(line, level);
}

Destination::~Destination() = default;

} // namespace Log
