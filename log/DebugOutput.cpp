#include "DebugOutput.h"

#include <cstdio>

namespace Log {

void DebugOutput::output(const QString& message)
{
    std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
    std::fflush(stderr);
}

} // namespace Log
