#include "RotatingFileStream.h"

namespace Log {

// The base is built before the buffer exists, so the buffer is attached afterwards.
RotatingFileStream::RotatingFileStream(const QString& path, qint64 maxBytes, int oldFiles)
    : std::ostream(nullptr), buffer(path, maxBytes, oldFiles)
{
    rdbuf(&buffer);
}

RotatingFileStream::~RotatingFileStream()
{
    rdbuf(nullptr);
}

} // namespace Log
