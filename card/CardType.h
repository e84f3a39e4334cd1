#pragma once

#include <QVector>

enum class CardType
{
    Unknown,
    AcosSmartCard,
    RfidTag
};

// What a card's answer to reset makes it: an ACOS smart card when its historical bytes begin
// with the ACOS mark, any other card of the direct convention an RFID tag.
CardType cardTypeOf(const QVector<unsigned char>& atr);
