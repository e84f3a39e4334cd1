#pragma once

#include "RotatingFile.h"

#include <streambuf>
#include <string>

namespace Log {

// Collects what a std::ostream writes and hands it to a RotatingFile a whole line at a time,
// so a rotation or a failed write never splits a line. Never fails towards the stream: a
// stream that saw one failure would ignore everything after it.
class RotatingFileBuffer : public std::streambuf
{
public:
    RotatingFileBuffer(const QString& path, qint64 maxBytes, int oldFiles);
    // An unfinished last line is written as it is.
    ~RotatingFileBuffer() override;

    bool isOpen() const { return file.isOpen(); }

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int sync() override;

private:
    void writeCompleteLines();
    void writeLine(std::string::size_type end);

    RotatingFile file;
    std::string pending;
};

} // namespace Log
