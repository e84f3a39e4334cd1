#pragma once

#include "Destination.h"

#include <QString>
#include <QStringList>

#include <cstdio>
#include <mutex>

// Keeps every log line so tests can look for what the code under test reported.
class LogCapture : public Log::Destination
{
public:
    void write(const QString& message, Log::Level) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.append(message);
        if (echo)
            std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
    }
    bool isValid() override { return true; }

    int count(const QString& text) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        int found = 0;
        for (const QString& line : lines)
            found += line.contains(text) ? 1 : 0;
        return found;
    }
    bool contains(const QString& text) const { return count(text) > 0; }

    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
    }

private:
    // TIV_TEST_LOG=1 shows the lines while a failing test is looked into.
    const bool echo = qEnvironmentVariableIntValue("TIV_TEST_LOG") != 0;
    mutable std::mutex mutex;
    QStringList lines;
};

// The one capture of the test binary, installed by its main().
LogCapture& logCapture();
