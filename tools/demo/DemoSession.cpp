#include "DemoSession.h"

#include "CardPersonality.h"
#include "Console.h"
#include "MessageLog.h"
#include "ServiceStack.h"


namespace {

using namespace std::chrono_literals;

// The service reports a card within a second; under a sanitizer on a busy machine, or right
// after a reader refresh, it can take far longer.
const auto messageTimeout = 30s;
const auto removalTimeout = 10s;

QString describeCard(const DemoCommand& command)
{
    return (command.kind == DemoCommand::Kind::Acos ? QStringLiteral("ACOS card ") : QStringLiteral("tag "))
           + command.idText();
}

} // namespace

DemoSession::DemoSession(DemoReaders readers, MessageLog& messages, bool interactive)
    : readers(std::move(readers)), messages(messages), interactive(interactive)
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
        const std::optional<std::string> line = input.next();
        if (!line || cancelled)
            break;
        Console::promptAnswered();
        const DemoCommand command = DemoCommand::parse(*line);
        // Piped commands are not echoed by a terminal; show them so the output reads as a session.
        if (!interactive && command.kind != DemoCommand::Kind::None)
            Console::line(QStringLiteral("> ") + QString::fromStdString(*line).trimmed());
        if (!execute(command))
            break;
        Console::prompt();
    }
    for (auto& card : cards)
        card.reset();
}

bool DemoSession::execute(const DemoCommand& command)
{
    switch (command.kind) {
    case DemoCommand::Kind::None:
        return true;
    case DemoCommand::Kind::Help:
        Console::plain(QString::fromLatin1(demoCommandHelp).trimmed());
        return true;
    case DemoCommand::Kind::Quit:
        return false;
    case DemoCommand::Kind::Invalid:
        Console::line(QStringLiteral("? ") + QString::fromStdString(command.problem));
        // A person simply types again; a script with a typo should not pass for a good run.
        if (!interactive)
            ++failed;
        return true;
    case DemoCommand::Kind::Remove:
        removeCard(command.reader, true);
        return true;
    case DemoCommand::Kind::Tag:
    case DemoCommand::Kind::Acos:
        layCard(command);
        return true;
    }
    return true;
}

void DemoSession::layCard(const DemoCommand& command)
{
    const int reader = command.reader;
    // Swapping cards faster than the reader polls could look like one card that never left.
    if (cards[reader])
        removeCard(reader, false);
    if (cancelled)
        return;

    auto card = std::make_unique<VirtualCards::VirtualCard>(
        command.kind == DemoCommand::Kind::Acos ? VirtualCards::CardPersonality::acosCard(command.id)
                                                : VirtualCards::CardPersonality::rfidTag(command.id));
    const size_t seenBefore = messages.size();
    const auto laidAt = MessageLog::Clock::now();
    if (!card->layOn(readers.vpcdPort[reader])) {
        Console::line(QStringLiteral("could not lay the card on reader %1: %2")
                          .arg(reader)
                          .arg(QString::fromStdString(card->lastError())));
        ++failed;
        return;
    }
    cards[reader] = std::move(card);
    Console::line(QStringLiteral("laid %1 on reader %2").arg(describeCard(command)).arg(reader));

    const auto arrival = messages.waitFor(command.messageType(), command.idText(), seenBefore, messageTimeout);
    if (arrival) {
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(*arrival - laidAt).count();
        Console::line(QStringLiteral("%1 %2 reached the client %3 ms after the card was laid")
                          .arg(command.messageType(), command.idText())
                          .arg(ms));
    } else if (!cancelled) {
        Console::line(QStringLiteral("no %1 message for %2 within %3 s; the service's log ends with:\n%4")
                          .arg(command.messageType(), command.idText())
                          .arg(std::chrono::seconds(messageTimeout).count())
                          .arg(ServiceStack::fileTail(readers.appLogFile, 10)));
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
    // The service says nothing when a card leaves; wait until PC/SC has seen it go.
    if (presence.waitFor(readers.name[reader].toStdString(), false, removalTimeout)) {
        Console::line(QStringLiteral("took the card off reader %1").arg(reader));
    } else if (!cancelled) {
        Console::line(QStringLiteral("reader %1 still shows a card: %2")
                          .arg(reader)
                          .arg(QString::fromStdString(presence.lastError())));
        ++failed;
    }
}
