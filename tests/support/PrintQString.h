#pragma once

#include <QString>

#include <ostream>

// Readable failure messages instead of byte dumps.
inline void PrintTo(const QString& value, std::ostream* out)
{
    *out << '"' << value.toStdString() << '"';
}
