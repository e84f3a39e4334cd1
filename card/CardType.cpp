#include "CardType.h"

namespace {

int interfaceByteCount(unsigned char y)
{
    return ((y & 0x1) ? 1 : 0) + ((y & 0x2) ? 1 : 0) + ((y & 0x4) ? 1 : 0);
}

} // namespace

CardType cardTypeOf(const QVector<unsigned char>& atr)
{
    if (atr.size() < 2 || atr[0] != 0x3B)
        return CardType::Unknown;

    const unsigned char t0 = atr[1];
    unsigned char y = t0 >> 4;
    int interfaceBytes = interfaceByteCount(y);
    while (y & 0x8) {
        const int tdIndex = 2 + interfaceBytes;
        // A TD byte announced but cut off: no ACOS mark can follow it.
        if (tdIndex >= atr.size())
            return CardType::RfidTag;
        y = atr[tdIndex] >> 4;
        interfaceBytes += interfaceByteCount(y) + 1;
    }

    if ((t0 & 0x0E) == 0)
        return CardType::RfidTag;
    const int historical = 2 + interfaceBytes;
    if (historical + 1 < atr.size() && atr[historical] == 0x41 && atr[historical + 1] == 0x01)
        return CardType::AcosSmartCard;
    return CardType::RfidTag;
}
