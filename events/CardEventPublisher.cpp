#include "CardEventPublisher.h"

#include "ReaderCommand.h"
#include "RemovedCommand.h"
#include "SCCommand.h"
#include "TagCommand.h"
#include "VersionCommand.h"

#include "Log.h"

CardEventPublisher::CardEventPublisher(Options options, QString version, Broadcast broadcast,
                                       std::function<Clock::time_point()> now)
    : options(std::move(options)), version(std::move(version)), broadcast(std::move(broadcast)), now(std::move(now))
{
}

void CardEventPublisher::readerConnected(const QString& pcscName)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (find(pcscName))
        return;
    Reader reader;
    reader.pcscName = pcscName;
    reader.displayName = options.readers.displayName(pcscName);
    if (reader.displayName != pcscName)
        TLOG_INFO() << "Reader" << pcscName << "is shown as" << reader.displayName;
    readers.append(reader);
    const QString text = ReaderCommand::build(reader.displayName, true);
    broadcast({text, text});
}

// A card still on a reader that goes away has left with it, as far as any client can tell.
void CardEventPublisher::readerDisconnected(const QString& pcscName)
{
    std::lock_guard<std::mutex> lock(mutex);
    Reader* reader = find(pcscName);
    if (!reader)
        return;
    removeCard(*reader);
    const QString text = ReaderCommand::build(reader->displayName, false);
    readers.removeAt(static_cast<int>(reader - readers.constData()));
    broadcast({text, text});
}

void CardEventPublisher::tagRead(const QString& reader, const QByteArray& uid)
{
    cardRead(reader, Kind::Tag, uid);
}

void CardEventPublisher::smartCardRead(const QString& reader, const QByteArray& id)
{
    cardRead(reader, Kind::SmartCard, id);
}

void CardEventPublisher::cardRead(const QString& pcscName, Kind kind, const QByteArray& id)
{
    std::lock_guard<std::mutex> lock(mutex);
    Reader* reader = find(pcscName);
    if (!reader)
        return;

    // The same card read again without leaving: the periodic re-report.
    if (reader->card && reader->card->kind == kind && reader->card->id == id) {
        if (reader->card->reported) {
            reader->card->seq = ++lastSeq;
            broadcast(cardTexts(*reader, *reader->card, true));
        }
        return;
    }

    // Another card where one was reported, with no removal seen in between: the first one left.
    removeCard(*reader);
    Card card{kind, id};
    card.reported = !withinRepeatWindow(*reader, id);
    if (!card.reported) {
        TLOG_DEBUG() << "A card laid again on" << pcscName << "within the repeat window is not reported.";
    } else {
        card.seq = ++lastSeq;
        broadcast(cardTexts(*reader, card, false));
    }
    reader->card = card;
}

void CardEventPublisher::cardRemoved(const QString& pcscName)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (Reader* reader = find(pcscName))
        removeCard(*reader);
}

void CardEventPublisher::removeCard(Reader& reader)
{
    if (!reader.card)
        return;
    const Card card = *reader.card;
    reader.card.reset();
    reader.lastRemovedId = card.id;
    reader.lastRemoval = now();
    if (card.reported)
        broadcast({QString(), RemovedCommand::build(tagIdOf(card), reader.displayName, ++lastSeq)});
}

bool CardEventPublisher::withinRepeatWindow(const Reader& reader, const QByteArray& id) const
{
    return options.repeatWindow.count() > 0 && !reader.lastRemovedId.isNull() && reader.lastRemovedId == id
           && now() - reader.lastRemoval < options.repeatWindow;
}

void CardEventPublisher::greet(ClientProtocol protocol, const Admit& admit)
{
    std::lock_guard<std::mutex> lock(mutex);
    QStringList greeting;
    for (const Reader& reader : qAsConst(readers))
        greeting << ReaderCommand::build(reader.displayName, true);
    if (protocol == ClientProtocol::Version2) {
        for (const Reader& reader : qAsConst(readers)) {
            if (reader.card && reader.card->reported)
                greeting << version2Text(reader, *reader.card, true);
        }
    }
    greeting << VersionCommand::build(version);
    admit(greeting);
}

CardEventPublisher::Reader* CardEventPublisher::find(const QString& pcscName)
{
    for (Reader& reader : readers) {
        if (reader.pcscName == pcscName)
            return &reader;
    }
    return nullptr;
}

// A smart card's ID is its MCU ID, which badge systems do not print: it stays hex.
QString CardEventPublisher::tagIdOf(const Card& card) const
{
    return card.kind == Kind::Tag ? options.idFormat.render(card.id) : TagIdFormat::hex(card.id);
}

QString CardEventPublisher::version2Text(const Reader& reader, const Card& card, bool repeat) const
{
    const CardReport report{reader.displayName, repeat, card.seq};
    if (card.kind == Kind::SmartCard)
        return SCCommand::buildVersion2(tagIdOf(card), report);
    return TagCommand::buildVersion2(tagIdOf(card), TagIdFormat::hex(card.id), report);
}

ProtocolTexts CardEventPublisher::cardTexts(const Reader& reader, const Card& card, bool repeat) const
{
    const QString original =
        card.kind == Kind::SmartCard ? SCCommand::build(tagIdOf(card)) : TagCommand::build(tagIdOf(card));
    return {original, version2Text(reader, card, repeat)};
}
