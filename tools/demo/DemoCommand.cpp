#include "DemoCommand.h"

#include <sstream>

namespace {

// The service reads at most 8 UID bytes; a longer one would only end in an error line.
const size_t maxTagUidBytes = 8;
const size_t acosIdBytes = 8;

DemoCommand invalid(const std::string& problem)
{
    DemoCommand command;
    command.kind = DemoCommand::Kind::Invalid;
    command.problem = problem;
    return command;
}

bool parseReader(const std::string& word, int* reader)
{
    if (word != "0" && word != "1")
        return false;
    *reader = word[0] - '0';
    return true;
}

} // namespace

const char demoCommandHelp[] =
    "Commands:\n"
    "  tag <reader> <uid>      lay an RFID tag with this UID (1 to 8 hex bytes) on reader 0 or 1\n"
    "  acos <reader> <mcu id>  lay an ACOS card with this MCU ID (16 hex digits) on reader 0 or 1\n"
    "  remove <reader>         take the card off the reader\n"
    "  help                    show this list\n"
    "  quit                    stop everything and end (so does Ctrl-D or Ctrl-C)\n"
    "A card laid on a reader that holds one replaces it. Hex may be written 04a10b7f, 04:a1:0b:7f or 04 a1 0b 7f.\n";

DemoCommand DemoCommand::parse(const std::string& line)
{
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    DemoCommand command;
    if (verb.empty() || verb[0] == '#')
        return command;
    if (verb == "help" || verb == "?") {
        command.kind = Kind::Help;
        return command;
    }
    if (verb == "quit" || verb == "exit") {
        command.kind = Kind::Quit;
        return command;
    }
    if (verb != "tag" && verb != "acos" && verb != "remove")
        return invalid("unknown command '" + verb + "' (help lists the commands)");

    std::string readerWord;
    words >> readerWord;
    if (!parseReader(readerWord, &command.reader))
        return invalid(verb + ": the reader is 0 or 1, not '" + readerWord + "'");

    std::string rest;
    std::getline(words, rest);
    // Piped files may carry tabs or CRLF line ends around the id.
    const size_t first = rest.find_first_not_of(" \t\r");
    rest = first == std::string::npos ? std::string() : rest.substr(first, rest.find_last_not_of(" \t\r") - first + 1);
    if (verb == "remove") {
        if (!rest.empty())
            return invalid("remove takes only the reader");
        command.kind = Kind::Remove;
        return command;
    }

    const std::optional<VirtualCards::Bytes> id = VirtualCards::parseHex(rest);
    if (verb == "tag") {
        if (!id || id->empty() || id->size() > maxTagUidBytes)
            return invalid("tag: the UID is 1 to 8 bytes in hex, e.g. tag 0 04a10b7f");
        command.kind = Kind::Tag;
    } else {
        if (!id || id->size() != acosIdBytes)
            return invalid("acos: the MCU ID is 8 bytes in hex (16 digits), e.g. acos 1 0102030405060708");
        command.kind = Kind::Acos;
    }
    command.id = *id;
    return command;
}

QString DemoCommand::messageType() const
{
    return kind == Kind::Acos ? QStringLiteral("SC") : QStringLiteral("TAG");
}

QString DemoCommand::idText() const
{
    QString text;
    for (uint8_t byte : id)
        text += QStringLiteral("%1").arg(byte, 2, 16, QLatin1Char('0'));
    return text;
}
