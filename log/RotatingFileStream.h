#pragma once

#include "RotatingFileBuffer.h"

#include <QString>

#include <ostream>

namespace Log {

// A std::ostream onto a log file that starts empty, is rotated by size like the service's own
// log (name.1 the newest of `oldFiles` old ones), is created 0640, and picks up again after a
// failed write with a note of the lines lost. For one writing thread at a time.
class RotatingFileStream : public std::ostream
{
public:
    RotatingFileStream(const QString& path, qint64 maxBytes, int oldFiles);
    ~RotatingFileStream() override;

    bool isOpen() const { return buffer.isOpen(); }

private:
    RotatingFileBuffer buffer;
};

} // namespace Log
