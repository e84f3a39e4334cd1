#pragma once

#include "CardType.h"

#include <winscard.h>

#include <QString>

#include <optional>

// Reads the identifier of the card on one reader: connects to it, holds a transaction while
// it reads, and leaves the card reset. A failed call is logged as a warning and ends the read.
// Used on the card thread only.
class CardReader
{
public:
    struct Card
    {
        CardType type;
        QString id;
    };

    explicit CardReader(SCARDCONTEXT context) : context(context) {}

    // Nothing when the card could not be read or is of no known type.
    std::optional<Card> read(const char* reader) const;

private:
    SCARDCONTEXT context;
};
