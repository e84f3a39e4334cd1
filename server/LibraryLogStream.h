#pragma once

#include <QString>

#include <memory>
#include <ostream>

// Where the WebSocket library's access and error logs go. Truncated at every start; a stream
// that failed to open is handed over all the same, and the library then logs nothing.
std::unique_ptr<std::ostream> openLibraryLogStream(const QString& path);
