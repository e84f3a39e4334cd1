#include "CardCommands.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

namespace {

const size_t maxTagUidBytes = 8; // the service's reply buffer
const size_t acosIdBytes = 8;

} // namespace

CardCommand CardCommand::parse(const std::string& line, int readers, bool serviceReadable)
{
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    CardCommand command;
    command.line = line;
    const auto invalid = [&command](const std::string& problem) {
        command.kind = Kind::Invalid;
        command.problem = problem;
        return command;
    };
    if (verb.empty() || verb[0] == '#')
        return command;
    if (verb == "help" || verb == "?" || verb == "quit" || verb == "exit") {
        command.kind = verb == "help" || verb == "?" ? Kind::Help : Kind::Quit;
        return command;
    }
    if (verb != "tag" && verb != "acos" && verb != "remove")
        return invalid("unknown command '" + verb + "' (help lists the commands)");

    if (readers > 1) {
        std::string word;
        words >> word;
        if (word.size() != 1 || word[0] < '0' || word[0] >= '0' + readers)
            return invalid(verb + ": the reader is 0 to " + std::to_string(readers - 1) + ", not '" + word + "'");
        command.reader = word[0] - '0';
    }
    std::string rest;
    std::getline(words, rest);
    // Piped files may carry tabs or CRLF line ends around the id.
    const size_t first = rest.find_first_not_of(" \t\r");
    rest = first == std::string::npos ? std::string() : rest.substr(first, rest.find_last_not_of(" \t\r") - first + 1);
    if (verb == "remove") {
        if (!rest.empty())
            return invalid("remove takes no card id");
        command.kind = Kind::Remove;
        return command;
    }

    const std::optional<VirtualCards::Bytes> id = VirtualCards::parseHex(rest);
    if (!id || id->empty())
        return invalid(verb + ": the card id is hex bytes, e.g. 04a10b7f, not '" + rest + "'");
    if (serviceReadable && verb == "tag" && id->size() > maxTagUidBytes)
        return invalid("tag: the UID is 1 to 8 bytes in hex, e.g. 04a10b7f");
    if (serviceReadable && verb == "acos" && id->size() != acosIdBytes)
        return invalid("acos: the MCU ID is 8 bytes in hex (16 digits), e.g. 0102030405060708");
    command.kind = verb == "tag" ? Kind::Tag : Kind::Acos;
    command.id = *id;
    return command;
}

std::string CardCommand::idText() const
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : id) {
        text += digits[byte >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

CardCommandReader::CardCommandReader(int readers, bool serviceReadable)
    : readers(readers), serviceReadable(serviceReadable)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        wakeRead = fds[0];
        wakeWrite = fds[1];
    }
}

CardCommandReader::~CardCommandReader()
{
    if (wakeRead >= 0)
        ::close(wakeRead);
    if (wakeWrite >= 0)
        ::close(wakeWrite);
}

std::optional<CardCommand> CardCommandReader::next()
{
    const std::optional<std::string> line = nextLine();
    if (!line)
        return std::nullopt;
    return CardCommand::parse(*line, readers, serviceReadable);
}

std::optional<std::string> CardCommandReader::nextLine()
{
    for (;;) {
        const size_t end = pending.find('\n');
        if (end != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            return line;
        }
        if (endOfInput) {
            if (pending.empty())
                return std::nullopt;
            std::string last;
            last.swap(pending);
            return last;
        }

        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {wakeRead, POLLIN, 0}};
        if (::poll(fds, wakeRead >= 0 ? 2 : 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        if (fds[1].revents != 0)
            return std::nullopt;
        char buffer[4096];
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count <= 0)
            endOfInput = true;
        else
            pending.append(buffer, static_cast<size_t>(count));
    }
}

void CardCommandReader::cancel()
{
    if (wakeWrite >= 0) {
        const char wake = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeWrite, &wake, 1);
    }
}
