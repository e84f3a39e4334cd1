#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <gtest/gtest.h>

#include <ctime>
#include <ostream>

// A zone far from UTC, so a timestamp taken in UTC rather than local time shows up. Set before
// main(): with TZ unset glibc re-reads the zone at every timestamp, under a lock that the thread
// sanitizer cannot see.
inline const bool farZoneSet = (qputenv("TZ", "XYZ-05:45"), tzset(), true);

inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// What was written to file descriptor 2 since testing::internal::CaptureStderr().
inline QByteArray capturedStderr()
{
    return QByteArray::fromStdString(testing::internal::GetCapturedStderr());
}
