#pragma once

#include "PrintQString.h"
#include "TestFiles.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QProcess>
#include <QString>

#include <gtest/gtest.h>

#include <ctime>

// Set for a test run again in a process of its own, which keeps the environment it was given.
inline const char* const freshProcessVariable = "TIV_TEST_FRESH_PROCESS";

// A zone far from UTC, so a timestamp taken in UTC rather than local time shows up. Set before
// main(): with TZ unset glibc re-reads the zone at every timestamp, under a lock that the thread
// sanitizer cannot see.
inline const bool farZoneSet =
    qEnvironmentVariableIsSet(freshProcessVariable) || (qputenv("TZ", "XYZ-05:45"), tzset(), true);

struct FreshRun
{
    int exitCode; // -1 when the process did not end normally
    QByteArray output;
};

// Runs the tests matching `filter` again in a new process of this program, started through
// `wrapper` when one is given, with freshProcessVariable set and `unset` taken out of the
// environment.
inline FreshRun runFreshProcess(const QString& filter, QStringList wrapper = {}, const QString& unset = {})
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(freshProcessVariable, "1");
    if (!unset.isEmpty())
        environment.remove(unset);
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    QStringList command = wrapper << QCoreApplication::applicationFilePath() << "--gtest_filter=" + filter;
    process.start(command.takeFirst(), command);
    const bool ended = process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit;
    return {ended ? process.exitCode() : -1, process.readAll()};
}
