#pragma once

#include "Log.h"

#include <QStringList>

#include <algorithm>
#include <mutex>

// Keeps every log line so tests can look for what the code under test reported.
class LogCapture : public Log::Destination
{
public:
    // The one capture of the process, installed at debug level by the first call. Make that call
    // before any thread logs: the logger's set-up takes no lock.
    static LogCapture& instance()
    {
        static LogCapture* const capture = [] {
            // With TZ unset glibc reloads the zone at every timestamp under a lock the thread
            // sanitizer cannot see, so two threads logging at once look like a race.
            if (!qEnvironmentVariableIsSet("TZ"))
                qputenv("TZ", ":/etc/localtime");
            auto* created = new LogCapture;
            Log::Logger::instance().setLoggingLevel(Log::LevelDebug);
            Log::Logger::instance().addDestination(Log::DestinationPtr(created));
            return created;
        }();
        return *capture;
    }

    void write(const QString& message, Log::Level) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        captured << message;
    }
    bool isValid() override { return true; }

    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        captured.clear();
    }

    // Lines that hold every one of the fragments.
    int count(const QStringList& fragments) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return static_cast<int>(std::count_if(captured.begin(), captured.end(), [&](const QString& line) {
            return std::all_of(fragments.begin(), fragments.end(),
                               [&](const QString& fragment) { return line.contains(fragment); });
        }));
    }
    int count(const QString& fragment) const { return count(QStringList{fragment}); }
    QStringList lines(const QString& fragment) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return captured.filter(fragment);
    }

private:
    LogCapture() = default;
    mutable std::mutex mutex;
    QStringList captured;
};
