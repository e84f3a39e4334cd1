#pragma once

#include "HexBytes.h"

#include <optional>
#include <string>
#include <utility>

namespace VirtualCards {

// What a card says: its answer-to-reset and its answers to command APDUs, apart
// from how it is attached to a reader.
class CardPersonality
{
public:
    // A contactless tag as a PC/SC reader presents it, answering READ UID (FF CA 00 00 00).
    static CardPersonality rfidTag(Bytes uid);
    // An ACOS card whose record 0 of file FF 00 holds the MCU ID; it also has the base file 00 01.
    static CardPersonality acosCard(Bytes mcuId);

    static Bytes defaultTagAtr();
    static Bytes defaultAcosAtr();

    const Bytes& atr() const { return atrBytes; }
    void setAtr(Bytes atr) { atrBytes = std::move(atr); }

    // A faulty card: every command is answered with this status word alone; or only the first
    // `commands` of them, like a card still entering the field.
    void setStatusWord(uint8_t sw1, uint8_t sw2, int commands = -1)
    {
        forcedStatus = std::make_pair(sw1, sw2);
        forcedCommandsLeft = commands;
    }

    // Power-on and reset forget the selected file, as a real card does.
    void reset() { selectedFile.reset(); }

    // Never empty: the reader side drops a card that answers with nothing.
    Bytes respond(const Bytes& apdu);

    std::string describe() const;

private:
    enum class Kind
    {
        RfidTag,
        AcosCard
    };

    CardPersonality(Kind kind, Bytes id, Bytes atr);
    Bytes respondAsTag(const Bytes& apdu) const;
    Bytes respondAsAcos(const Bytes& apdu);

    Kind kind;
    Bytes id;
    Bytes atrBytes;
    std::optional<std::pair<uint8_t, uint8_t>> forcedStatus;
    int forcedCommandsLeft = -1; // -1: all of them
    std::optional<uint16_t> selectedFile;
};

} // namespace VirtualCards
