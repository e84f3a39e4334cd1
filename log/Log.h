#pragma once

#include "Destination.h"
#include "LogLevel.h"

#include <QDebug>
#include <QString>

namespace Log {

class LoggerImpl;

// Process-wide leveled logger. Lines are formatted on the calling thread and handed,
// synchronously and under one lock, to every destination in the order they were added.
class Logger
{
public:
    static Logger& instance();
    static void destroyInstance();
    // A line as the logger writes it: level, local timestamp, message. Safe on any thread.
    static QString formatLine(Level level, const QString& message);

    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void addDestination(DestinationPtr destination);
    void setLoggingLevel(Level level);
    Level loggingLevel() const;

    // One log statement: collects the streamed items and writes the line when destroyed.
    class Helper
    {
    public:
        explicit Helper(Level logLevel);
        ~Helper();
        Helper(const Helper&) = delete;
        Helper& operator=(const Helper&) = delete;

        QDebug& stream() { return qtDebug; }

    private:
        void writeToLog();

        Level level;
        QString buffer;
        QDebug qtDebug;
    };

private:
    Logger();
    void write(const QString& message, Level level);

    LoggerImpl* d;
};

} // namespace Log

namespace Log {

// Lets a log statement be one conditional expression: both branches must be void, and an
// expression (unlike an if/else) cannot capture the else of a surrounding if.
struct StatementEnd
{
    void operator&(const QDebug&) const {}
};

} // namespace Log

// The threshold is tested before a Helper exists, so the streamed items of a
// filtered statement are never evaluated.
#define TLOG_AT(lvl)                                                                            \
    (Log::Logger::instance().loggingLevel() > (lvl))                                            \
        ? (void)0                                                                               \
        : Log::StatementEnd() & Log::Logger::Helper(lvl).stream()

#define TLOG_TRACE() TLOG_AT(Log::LevelTrace)
#define TLOG_DEBUG() TLOG_AT(Log::LevelDebug)
#define TLOG_INFO() TLOG_AT(Log::LevelInfo)
#define TLOG_WARN() TLOG_AT(Log::LevelWarn)
#define TLOG_ERROR() TLOG_AT(Log::LevelError)
#define TLOG_FATAL() TLOG_AT(Log::LevelFatal)
