#pragma once

#include "ClientProtocol.h"
#include "ReaderRules.h"
#include "TagIdFormat.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>

// Turns what the card loop sees into what clients are told, in both protocols, and keeps what
// a new client is greeted with: the readers (by display name) and, in protocol 2, the cards
// lying on them. It numbers card events, tells a re-report of a card still lying on its reader
// from a new tap, and holds back a card laid again within the repeat window of its removal.
//
// The event calls come from the card thread, greet() from the server thread. One lock covers
// both and is held while their texts are handed on, so a new client hears of every reader and
// card exactly once: in its greeting, or in a broadcast after it.
class CardEventPublisher
{
public:
    using Clock = std::chrono::steady_clock;
    using Broadcast = std::function<void(const ProtocolTexts& texts)>;
    using Admit = std::function<void(const QStringList& greeting)>;

    struct Options
    {
        TagIdFormat idFormat;
        ReaderRules readers;
        // 0: every tap is reported.
        std::chrono::milliseconds repeatWindow{0};
    };

    CardEventPublisher(Options options, QString version, Broadcast broadcast,
                       std::function<Clock::time_point()> now = &Clock::now);

    // Card thread. Readers by their PC/SC names.
    void readerConnected(const QString& reader);
    void readerDisconnected(const QString& reader);
    void tagRead(const QString& reader, const QByteArray& uid);
    void smartCardRead(const QString& reader, const QByteArray& id);
    void cardRemoved(const QString& reader);

    // Server thread: hands the greeting for a client of `protocol` to `admit`.
    void greet(ClientProtocol protocol, const Admit& admit);

private:
    enum class Kind
    {
        Tag,
        SmartCard
    };

    struct Card
    {
        Kind kind;
        QByteArray id;
        qint64 seq = 0;
        // False for a card held back by the repeat window: none of its events go out.
        bool reported = true;
    };

    struct Reader
    {
        QString pcscName;
        QString displayName;
        std::optional<Card> card;
        // The last card that left, for the repeat window.
        QByteArray lastRemovedId;
        Clock::time_point lastRemoval;
    };

    void cardRead(const QString& reader, Kind kind, const QByteArray& id);
    void removeCard(Reader& reader);
    bool withinRepeatWindow(const Reader& reader, const QByteArray& id) const;
    Reader* find(const QString& pcscName);

    QString tagIdOf(const Card& card) const;
    QString version2Text(const Reader& reader, const Card& card, bool repeat) const;
    ProtocolTexts cardTexts(const Reader& reader, const Card& card, bool repeat) const;

    const Options options;
    const QString version;
    const Broadcast broadcast;
    const std::function<Clock::time_point()> now;

    std::mutex mutex;
    QVector<Reader> readers; // in the order they came
    qint64 lastSeq = 0;
};
