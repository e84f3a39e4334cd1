#include "LibraryLogStream.h"

#include <fstream>

std::unique_ptr<std::ostream> openLibraryLogStream(const QString& path)
{
    return std::make_unique<std::ofstream>(path.toUtf8().toStdString(),
                                           std::ios::out | std::ios::trunc);
}
