#include "Log.h"

#include <QVector>

#include <cstdio>
#include <ctime>
#include <exception>
#include <mutex>

namespace Log {

namespace {

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

// yyyy-MM-ddThh:mm:ss.zzz in local time. Made from the C library's reentrant calls because
// QDateTime's formatting, run by several threads at once before any of them has finished a
// first one, now and then gives an empty text.
QString localTimestamp()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(now.tv_nsec / 1000000));
    return QString::fromLatin1(text);
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

QString Logger::formatLine(Level level, const QString& message)
{
    // The message goes in last, so a "%1" inside it is never substituted.
    return QStringLiteral("%1 %2 %3")
        .arg(QLatin1String(levelToText(level)))
        .arg(localTimestamp())
        .arg(message);
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
    Logger::instance().write(formatLine(level, buffer), level);
}

Destination::~Destination() = default;

} // namespace Log
