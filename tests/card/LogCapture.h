#pragma once

#include "Log.h"

#include <QMutex>
#include <QStringList>

#include <algorithm>

// Keeps every log line so tests can look for the ones that matter to operators.
class LogCapture : public Log::Destination
{
public:
    // Installs one capture at debug level for the whole process; call from main().
    static LogCapture& install()
    {
        static LogCapture* capture = nullptr;
        if (!capture) {
            capture = new LogCapture;
            Log::Logger::instance().setLoggingLevel(Log::LevelDebug);
            Log::Logger::instance().addDestination(Log::DestinationPtr(capture));
        }
        return *capture;
    }

    static LogCapture& instance() { return install(); }

    void write(const QString& message, Log::Level) override
    {
        QMutexLocker lock(&mutex);
        captured << message;
    }

    bool isValid() override { return true; }

    QStringList lines() const
    {
        QMutexLocker lock(&mutex);
        return captured;
    }

    void clear()
    {
        QMutexLocker lock(&mutex);
        captured.clear();
    }

    // Whether one line holds all the fragments.
    bool hasLine(const QStringList& fragments) const
    {
        QMutexLocker lock(&mutex);
        for (const QString& line : captured) {
            if (std::all_of(fragments.begin(), fragments.end(),
                            [&](const QString& fragment) { return line.contains(fragment); }))
                return true;
        }
        return false;
    }

    bool contains(const QString& fragment) const
    {
        QMutexLocker lock(&mutex);
        for (const QString& line : captured) {
            if (line.contains(fragment))
                return true;
        }
        return false;
    }

private:
    LogCapture() = default;
    mutable QMutex mutex;
    QStringList captured;
};
