#pragma once

#include "HexBytes.h"

#include <optional>
#include <string>

// One line of the commands that lay virtual cards by hand, in the demo and in
// tiv-virtual-card: tag [reader] HEX, acos [reader] HEX, remove [reader], help, quit. A program
// with one reader leaves the reader out.
struct CardCommand
{
    enum class Kind { None, Tag, Acos, Remove, Help, Quit, Invalid };

    // Blank lines and lines starting with '#' are None, so command files may be commented.
    // `serviceReadable` turns away ids the service cannot read (over 8 tag bytes, an ACOS MCU
    // ID that is not 8 bytes), which would only end in an error line of its log.
    static CardCommand parse(const std::string& line, int readers, bool serviceReadable);

    // The id as the service sends it: lower-case hex, no separators.
    std::string idText() const;

    Kind kind = Kind::None;
    int reader = 0;
    VirtualCards::Bytes id;
    std::string problem; // for Invalid
    std::string line;    // as typed, without its line end
};

// Commands from standard input, which another thread can stop waiting for: a blocking read
// could not be interrupted when the program must end.
class CardCommandReader
{
public:
    CardCommandReader(int readers, bool serviceReadable);
    ~CardCommandReader();
    CardCommandReader(const CardCommandReader&) = delete;
    CardCommandReader& operator=(const CardCommandReader&) = delete;

    // Nothing at the end of input or after cancel().
    std::optional<CardCommand> next();
    void cancel();

private:
    std::optional<std::string> nextLine();

    const int readers;
    const bool serviceReadable;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::string pending;
    bool endOfInput = false;
};
