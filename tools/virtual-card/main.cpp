// tiv-virtual-card: lays a virtual RFID tag or ACOS card on a virtual PC/SC reader.

#include "CardCommands.h"
#include "CardPersonality.h"
#include "HexBytes.h"
#include "VirtualCard.h"

#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

using namespace VirtualCards;

namespace {

const char usage[] =
    "Usage: tiv-virtual-card --port N [options]\n"
    "Lays a virtual card on the virtual reader listening on TCP port N.\n"
    "\n"
    "  --port N       the reader's port (each virtual reader has its own)\n"
    "  --host NAME    the reader's host (default 127.0.0.1)\n"
    "  --tag HEX      lay an RFID tag with this UID and hold it there until Ctrl-C\n"
    "  --acos HEX     lay an ACOS card with this MCU ID and hold it there until Ctrl-C\n"
    "  --atr HEX      present this answer-to-reset instead of the card's usual one\n"
    "  --status SW    answer every command with the status word SW (four hex digits)\n"
    "  --status-count N  only the first N commands (a card still entering the field)\n"
    "  --drop-at N    drop the connection in the middle of answering the N-th command\n"
    "  --pull-after N answer the N-th command, then drop the connection\n"
    "                 (0: as soon as the reader has powered the card up)\n"
    "  --quiet        do not print the commands the card receives\n"
    "  -h, --help     show this text\n"
    "\n"
    "Without --tag or --acos, one command a line is read from standard input:\n"
    "  tag HEX        lay an RFID tag (replacing any card on the reader)\n"
    "  acos HEX       lay an ACOS card (replacing any card on the reader)\n"
    "  remove         take the card away\n"
    "  quit           take the card away and end\n";

struct Options
{
    uint16_t port = 0;
    std::string host = "127.0.0.1";
    std::string kind; // "tag", "acos" or empty for interactive use
    Bytes id;
    std::optional<Bytes> atr;
    std::optional<Bytes> statusWord;
    int statusCount = -1;
    int dropAt = 0;
    int pullAfter = -1;
    bool quiet = false;
};

std::mutex outputMutex;

void say(const std::string& line)
{
    std::lock_guard<std::mutex> lock(outputMutex);
    std::cout << line << std::endl;
}

void complain(const std::string& line)
{
    std::lock_guard<std::mutex> lock(outputMutex);
    std::cerr << "tiv-virtual-card: " << line << std::endl;
}

bool parseNumber(const std::string& text, long min, long max, long* value)
{
    try {
        size_t used = 0;
        const long number = std::stol(text, &used, 10);
        if (used != text.size() || number < min || number > max)
            return false;
        *value = number;
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// Returns false with a message on bad arguments; sets *helpShown for --help.
bool parseArguments(int argc, char** argv, Options* options, bool* helpShown)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::cout << usage;
            *helpShown = true;
            return true;
        }
        if (arg == "--quiet") {
            options->quiet = true;
            continue;
        }
        if (i + 1 >= argc) {
            complain("missing value after " + arg);
            return false;
        }
        const std::string value = argv[++i];
        long number = 0;
        if (arg == "--port") {
            if (!parseNumber(value, 1, 65535, &number)) {
                complain("bad port: " + value);
                return false;
            }
            options->port = static_cast<uint16_t>(number);
        } else if (arg == "--host") {
            options->host = value;
        } else if (arg == "--tag" || arg == "--acos") {
            const std::optional<Bytes> id = parseHex(value);
            if (!id) {
                complain("bad card id (hex bytes expected): " + value);
                return false;
            }
            options->kind = arg.substr(2);
            options->id = *id;
        } else if (arg == "--atr") {
            options->atr = parseHex(value);
            if (!options->atr || options->atr->empty() || options->atr->size() > 33) {
                complain("bad ATR (1 to 33 hex bytes expected): " + value);
                return false;
            }
        } else if (arg == "--status") {
            options->statusWord = parseHex(value);
            if (!options->statusWord || options->statusWord->size() != 2) {
                complain("bad status word (two hex bytes expected): " + value);
                return false;
            }
        } else if (arg == "--status-count") {
            if (!parseNumber(value, 0, 1000000, &number)) {
                complain("bad command count: " + value);
                return false;
            }
            options->statusCount = static_cast<int>(number);
        } else if (arg == "--drop-at" || arg == "--pull-after") {
            if (!parseNumber(value, arg == "--drop-at" ? 1 : 0, 1000000, &number)) {
                complain("bad command number: " + value);
                return false;
            }
            (arg == "--drop-at" ? options->dropAt : options->pullAfter) = static_cast<int>(number);
        } else {
            complain("unknown option " + arg);
            return false;
        }
    }
    if (options->port == 0) {
        complain("--port is required (see --help)");
        return false;
    }
    return true;
}

std::unique_ptr<VirtualCard> makeCard(const Options& options, const std::string& kind, const Bytes& id)
{
    CardPersonality personality = kind == "tag" ? CardPersonality::rfidTag(id) : CardPersonality::acosCard(id);
    if (options.atr)
        personality.setAtr(*options.atr);
    if (options.statusWord)
        personality.setStatusWord((*options.statusWord)[0], (*options.statusWord)[1], options.statusCount);
    const std::string description = personality.describe();

    auto card = std::make_unique<VirtualCard>(std::move(personality));
    card->setDropAtApdu(options.dropAt);
    card->setPullAfterApdu(options.pullAfter);
    if (!options.quiet)
        card->setTrace([](const std::string& line) { say("  " + line); });
    if (!card->layOn(options.port, options.host)) {
        complain(card->lastError());
        return nullptr;
    }
    say("Laid " + description + " on the reader at " + options.host + ":" + std::to_string(options.port));
    return card;
}

// Holds the card until SIGINT or SIGTERM, or until the reader lets go of it.
int holdCard(const Options& options)
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    // Blocked before the card's thread starts, so the signals reach only sigtimedwait below.
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    const std::unique_ptr<VirtualCard> card = makeCard(options, options.kind, options.id);
    if (!card)
        return 1;

    const timespec pollInterval{0, 200 * 1000 * 1000};
    for (;;) {
        if (sigtimedwait(&stopSignals, nullptr, &pollInterval) > 0) {
            card->takeAway();
            say("Card taken away.");
            return 0;
        }
        if (!card->isOnReader()) {
            const size_t received = card->receivedApdus().size();
            const bool dropped = (options.dropAt > 0 && received >= size_t(options.dropAt)) ||
                                 (options.pullAfter >= 0 && received >= size_t(options.pullAfter));
            say(dropped ? "Card dropped the connection as asked." : "The reader closed the connection.");
            return dropped ? 0 : 1;
        }
    }
}

int runInteractive(const Options& options)
{
    say("Reading commands: tag HEX | acos HEX | remove | quit");
    std::unique_ptr<VirtualCard> card;
    CardCommandReader input(1, false);
    for (std::optional<CardCommand> command; (command = input.next()) && command->kind != CardCommand::Kind::Quit;) {
        switch (command->kind) {
        case CardCommand::Kind::Tag:
        case CardCommand::Kind::Acos:
            card.reset();
            card = makeCard(options, command->kind == CardCommand::Kind::Tag ? "tag" : "acos", command->id);
            break;
        case CardCommand::Kind::Remove:
            say(card ? "Card taken away." : "No card on the reader.");
            card.reset();
            break;
        case CardCommand::Kind::Invalid:
            complain(command->problem);
            break;
        case CardCommand::Kind::Help:
            say("tag HEX | acos HEX | remove | quit");
            break;
        default:
            break;
        }
    }
    card.reset();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    bool helpShown = false;
    if (!parseArguments(argc, argv, &options, &helpShown))
        return 2;
    if (helpShown)
        return 0;
    return options.kind.empty() ? runInteractive(options) : holdCard(options);
}
