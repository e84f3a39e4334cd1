#include "CardPersonality.h"

namespace VirtualCards {

namespace {

const Bytes statusOk = {0x90, 0x00};
const Bytes wrongLength = {0x67, 0x00};
const Bytes wrongParameters = {0x6A, 0x86};
const Bytes fileNotFound = {0x6A, 0x82};
const Bytes recordNotFound = {0x6A, 0x83};
const Bytes noFileSelected = {0x69, 0x86};
const Bytes insNotSupported = {0x6D, 0x00};
const Bytes claNotSupported = {0x6E, 0x00};

const uint16_t mcuIdFile = 0xFF00;
const uint16_t baseFile = 0x0001;

Bytes withStatusOk(Bytes data)
{
    data.insert(data.end(), statusOk.begin(), statusOk.end());
    return data;
}

} // namespace

CardPersonality::CardPersonality(Kind kind, Bytes id, Bytes atr)
    : kind(kind), id(std::move(id)), atrBytes(std::move(atr))
{
}

CardPersonality CardPersonality::rfidTag(Bytes uid)
{
    return CardPersonality(Kind::RfidTag, std::move(uid), defaultTagAtr());
}

CardPersonality CardPersonality::acosCard(Bytes mcuId)
{
    return CardPersonality(Kind::AcosCard, std::move(mcuId), defaultAcosAtr());
}

Bytes CardPersonality::defaultTagAtr()
{
    // What a contactless reader reports for a storage tag: T=0 and T=1 offered, historical bytes after TD2.
    return {0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00,
            0x03, 0x06, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x6A};
}

Bytes CardPersonality::defaultAcosAtr()
{
    // Two historical bytes, 41 01: the mark the service looks for.
    return {0x3B, 0x02, 0x41, 0x01};
}

Bytes CardPersonality::respond(const Bytes& apdu)
{
    if (forcedStatus && forcedCommandsLeft != 0) {
        if (forcedCommandsLeft > 0)
            --forcedCommandsLeft;
        return {forcedStatus->first, forcedStatus->second};
    }
    if (apdu.size() < 4)
        return wrongLength;
    return kind == Kind::RfidTag ? respondAsTag(apdu) : respondAsAcos(apdu);
}

Bytes CardPersonality::respondAsTag(const Bytes& apdu) const
{
    if (apdu[0] != 0xFF)
        return claNotSupported;
    if (apdu[1] != 0xCA)
        return insNotSupported;
    if (apdu[2] != 0x00 || apdu[3] != 0x00)
        return wrongParameters;
    return withStatusOk(id);
}

Bytes CardPersonality::respondAsAcos(const Bytes& apdu)
{
    if (apdu[0] != 0x80)
        return claNotSupported;

    if (apdu[1] == 0xA4) { // SELECT FILE 80 A4 00 00 02 high low
        if (apdu.size() != 7 || apdu[4] != 0x02)
            return wrongLength;
        const uint16_t file = static_cast<uint16_t>(apdu[5] << 8 | apdu[6]);
        if (file != mcuIdFile && file != baseFile)
            return fileNotFound;
        selectedFile = file;
        return statusOk;
    }

    if (apdu[1] == 0xB2) { // READ RECORD 80 B2 record 00 length
        if (apdu.size() != 5)
            return wrongLength;
        if (!selectedFile)
            return noFileSelected;
        if (*selectedFile != mcuIdFile || apdu[2] != 0x00)
            return recordNotFound;
        const size_t length = apdu[4] == 0 ? 256 : apdu[4];
        Bytes record = id;
        record.resize(length, 0x00);
        return withStatusOk(record);
    }

    return insNotSupported;
}

std::string CardPersonality::describe() const
{
    std::string text = kind == Kind::RfidTag ? "RFID tag " : "ACOS card ";
    text += id.empty() ? "(empty id)" : formatHex(id);
    if (forcedStatus) {
        text += ", answering " + formatHex({forcedStatus->first, forcedStatus->second});
        if (forcedCommandsLeft >= 0)
            text += " to the first " + std::to_string(forcedCommandsLeft) + " command(s)";
    }
    return text;
}

} // namespace VirtualCards
