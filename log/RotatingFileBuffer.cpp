#include "RotatingFileBuffer.h"

#include "SizeRotationStrategy.h"

namespace Log {

namespace {

// Text without a line feed is let through in pieces of this size rather than held without end.
const std::string::size_type longestLine = 64 * 1024;

} // namespace

RotatingFileBuffer::RotatingFileBuffer(const QString& path, qint64 maxBytes, int oldFiles)
    : file(path, QSharedPointer<SizeRotationStrategy>::create(maxBytes, oldFiles),
           RotatingFile::Truncate)
{
}

RotatingFileBuffer::~RotatingFileBuffer()
{
    if (!pending.empty())
        writeLine(pending.size());
}

RotatingFileBuffer::int_type RotatingFileBuffer::overflow(int_type character)
{
    if (traits_type::eq_int_type(character, traits_type::eof()))
        return traits_type::not_eof(character);
    const char text = traits_type::to_char_type(character);
    xsputn(&text, 1);
    return character;
}

std::streamsize RotatingFileBuffer::xsputn(const char* text, std::streamsize count)
{
    pending.append(text, static_cast<std::string::size_type>(count));
    writeCompleteLines();
    return count;
}

int RotatingFileBuffer::sync()
{
    // Lines go to the file as they are completed; a flush has nothing left to do.
    return 0;
}

void RotatingFileBuffer::writeCompleteLines()
{
    std::string::size_type start = 0;
    std::string::size_type lineFeed;
    while ((lineFeed = pending.find('\n', start)) != std::string::npos) {
        file.writeLine(QByteArray(pending.data() + start, static_cast<int>(lineFeed - start)));
        start = lineFeed + 1;
    }
    pending.erase(0, start);
    if (pending.size() >= longestLine)
        writeLine(pending.size());
}

void RotatingFileBuffer::writeLine(std::string::size_type end)
{
    file.writeLine(QByteArray(pending.data(), static_cast<int>(end)));
    pending.erase(0, end);
}

} // namespace Log
