#include "Log.h"
#include "LogCapture.h"

#include <QCoreApplication>
#include <QSharedPointer>

#include <gtest/gtest.h>

namespace {
QSharedPointer<LogCapture> capture;
}

LogCapture& logCapture()
{
    return *capture;
}

int main(int argc, char** argv)
{
    // With TZ unset glibc reloads the zone on every mktime(), under a lock of its own that the
    // thread sanitizer cannot see; two threads logging at once then look like a race. The same
    // zone named explicitly is loaded once.
    if (!qEnvironmentVariableIsSet("TZ"))
        qputenv("TZ", ":/etc/localtime");

    // The logger is configured before any thread exists: it takes no lock for that.
    capture = QSharedPointer<LogCapture>::create();
    Log::Logger::instance().addDestination(capture);
    Log::Logger::instance().setLoggingLevel(Log::LevelDebug);

    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
