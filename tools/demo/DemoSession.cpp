#include "DemoSession.h"

#include "CardPersonality.h"
#include "Console.h"
#include "ServiceStack.h"
#include "TagArrivals.h"

#include <QString>

namespace {

using namespace std::chrono_literals;

// The service reports a card within a second; under a sanitizer on a busy machine, or right
// after a reader refresh, it can take far longer.
const auto messageTimeout = 30s;
const auto removalTimeout = 10s;

} // namespace

const char demoCommandHelp[] =
    "Commands:\n"
    "  tag <reader> <uid>      lay an RFID tag with this UID (1 to 8 hex bytes) on reader 0 or 1\n"
    "  acos <reader> <mcu id>  lay an ACOS card with this MCU ID (16 hex digits) on reader 0 or 1\n"
    "  remove <reader>         take the card off the reader\n"
    "  help                    show this list\n"
    "  quit                    stop everything and end (so does Ctrl-D or Ctrl-C)\n"
    "A card laid on a reader that holds one replaces it. Hex may be written 04a10b7f, 04:a1:0b:7f or 04 a1 0b 7f.\n";

DemoSession::DemoSession(const ServiceStack& stack, TagArrivals& messages, bool interactive)
    : stack(stack), messages(messages), interactive(interactive)
{
}

DemoSession::~DemoSession()
{
    cancel();
    wait();
}

void DemoSession::cancel()
{
    cancelled = true;
    input.cancel();
    presence.cancel();
    messages.cancel();
}

void DemoSession::run()
{
    if (!presence.open()) {
        Console::error(QStringLiteral("cannot watch the readers: ") + QString::fromStdString(presence.lastError()));
        ++failed;
        return;
    }
    Console::prompt();
    while (!cancelled) {
        const std::optional<CardCommand> command = input.next();
        if (!command || cancelled)
            break;
        Console::promptAnswered();
        // Piped commands are not echoed by a terminal; show them so the output reads as a session.
        if (!interactive && command->kind != CardCommand::Kind::None)
            Console::line(QStringLiteral("> ") + QString::fromStdString(command->line).trimmed());
        if (!execute(*command))
            break;
        Console::prompt();
    }
    for (auto& card : cards)
        card.reset();
}

bool DemoSession::execute(const CardCommand& command)
{
    switch (command.kind) {
    case CardCommand::Kind::None:
        return true;
    case CardCommand::Kind::Help:
        Console::plain(QString::fromLatin1(demoCommandHelp).trimmed());
        return true;
    case CardCommand::Kind::Quit:
        return false;
    case CardCommand::Kind::Invalid:
        Console::line(QStringLiteral("? ") + QString::fromStdString(command.problem));
        // A person simply types again; a script with a typo should not pass for a good run.
        if (!interactive)
            ++failed;
        return true;
    case CardCommand::Kind::Remove:
        removeCard(command.reader, true);
        return true;
    case CardCommand::Kind::Tag:
    case CardCommand::Kind::Acos:
        layCard(command);
        return true;
    }
    return true;
}

void DemoSession::layCard(const CardCommand& command)
{
    const int reader = command.reader;
    // Swapping cards faster than the reader polls could look like one card that never left.
    if (cards[reader])
        removeCard(reader, false);
    if (cancelled)
        return;

    const bool acos = command.kind == CardCommand::Kind::Acos;
    auto card = std::make_unique<VirtualCards::VirtualCard>(acos ? VirtualCards::CardPersonality::acosCard(command.id)
                                                                  : VirtualCards::CardPersonality::rfidTag(command.id));
    const QString type = acos ? QStringLiteral("SC") : QStringLiteral("TAG");
    const QString id = QString::fromStdString(command.idText());
    messages.expect(command.idText(), type.toStdString());
    const auto laidAt = TagArrivals::Clock::now();
    if (!card->layOn(stack.pcscd().vpcdPort(reader))) {
        Console::line(QStringLiteral("could not lay the card on reader %1: %2")
                          .arg(reader)
                          .arg(QString::fromStdString(card->lastError())));
        ++failed;
        return;
    }
    cards[reader] = std::move(card);
    Console::line(QStringLiteral("laid %1 %2 on reader %3").arg(acos ? "ACOS card" : "tag", id).arg(reader));

    const auto arrival = messages.waitForAll(messageTimeout);
    if (arrival) {
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(arrival->first - laidAt).count();
        Console::line(QStringLiteral("%1 %2 reached the client %3 ms after the card was laid").arg(type, id).arg(ms));
    } else if (!cancelled) {
        Console::line(QStringLiteral("no %1 message for %2 within %3 s; the service's log ends with:\n%4")
                          .arg(type, id)
                          .arg(std::chrono::seconds(messageTimeout).count())
                          .arg(stack.appLogTail(10)));
        ++failed;
    }
}

void DemoSession::removeCard(int reader, bool reportEmptyReader)
{
    if (!cards[reader]) {
        if (reportEmptyReader)
            Console::line(QStringLiteral("there is no card on reader %1").arg(reader));
        return;
    }
    cards[reader].reset();
    // Only protocol-2 clients hear of a card that leaves; wait until PC/SC has seen it go.
    if (presence.waitFor(stack.pcscd().readerName(reader).toStdString(), false, removalTimeout)) {
        Console::line(QStringLiteral("took the card off reader %1").arg(reader));
    } else if (!cancelled) {
        Console::line(QStringLiteral("reader %1 still shows a card: %2")
                          .arg(reader)
                          .arg(QString::fromStdString(presence.lastError())));
        ++failed;
    }
}
