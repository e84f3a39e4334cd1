#pragma once

#include <QtGlobal>

namespace Log {

enum LogRotationOption
{
    LogRotationDisabled = 0,
    LogRotationEnabled = 1
};

// Named wrappers so the size and the count cannot be swapped at a call site.
struct MaxSizeBytes
{
    explicit MaxSizeBytes(qint64 bytes = 0) : size(bytes) {}
    qint64 size;
};

struct MaxOldLogCount
{
    explicit MaxOldLogCount(int backups = 0) : count(backups) {}
    int count;
};

} // namespace Log
