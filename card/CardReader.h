#pragma once

#include "CardType.h"
#include "PcscCall.h"

#include <winscard.h>

#include <QByteArray>
#include <QString>

#include <vector>

// Reads the identifier of the card on one reader: connects to it, holds a transaction while
// it reads, and leaves the card reset before it returns, so the card may be lifted as soon as
// its identifier is out. Logs nothing of what went wrong: it hands that back, for the caller
// to log as often as it sees fit. Used on the card thread only.
class CardReader
{
public:
    struct Card
    {
        CardType type = CardType::Unknown;
        QByteArray id;
    };

    // One thing that went wrong: a failed PC/SC call, or else an answer of the card that is
    // of no use (`call` then succeeded).
    struct Failure
    {
        PcscCall call;
        QString answer;
    };

    enum class Result
    {
        Read,
        // Of no known type: reading it again would not help.
        UnknownType,
        // The card, its reader or the service is gone: there is nothing to read again.
        Gone,
        // Perhaps only for now, as with a card still entering the field.
        Failed
    };

    struct Outcome
    {
        Result result = Result::Failed;
        Card card;
        // Also those of a read that succeeded, such as a failed reset.
        std::vector<Failure> failures;
    };

    explicit CardReader(SCARDCONTEXT context) : context(context) {}

    Outcome read(const char* reader) const;

    // True when `result` means the card can no longer be reached.
    static bool meansGone(LONG result);

private:
    SCARDCONTEXT context;
};
