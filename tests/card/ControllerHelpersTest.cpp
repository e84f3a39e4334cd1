#include "ReaderName.h"
#include "SmartCardController.h"

#include <gtest/gtest.h>

namespace {

using Type = SmartCardController::CardType;

TEST(CardType, FollowsTheInterfaceBytesToTheAcosMarkWithoutReadingPastTheEnd)
{
    const struct
    {
        std::vector<unsigned char> atr;
        Type expected;
    } cases[] = {
        {{0x3B, 0x02, 0x41, 0x01}, Type::AcosSmartCard},
        {{0x3B, 0xBE, 0x11, 0x00, 0x00, 0x41, 0x01, 0x38, 0x00, 0x00}, Type::AcosSmartCard}, // after TA1 TB1 TD1
        {{0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00}, Type::RfidTag},       // after TD1 TD2
        {{0x3B, 0x00}, Type::RfidTag},
        {{0x3B, 0x01, 0x41}, Type::RfidTag},             // one historical byte cannot hold the mark
        {{0x3B, 0x03, 0x00, 0x41, 0x01}, Type::RfidTag}, // the mark in the wrong place
        {{0x3F, 0x02, 0x41, 0x01}, Type::Unknown},       // inverse convention
        {{0x3B}, Type::Unknown},
        // Cut off: at TD1, at TD2, in the interface bytes, in the mark, in a chain of TDs.
        {{0x3B, 0x82}, Type::RfidTag},
        {{0x3B, 0x8F, 0x80}, Type::RfidTag},
        {{0x3B, 0x72}, Type::RfidTag},
        {{0x3B, 0x02, 0x41}, Type::RfidTag},
        {{0x3B, 0x8E, 0x80, 0x80, 0x80, 0x80}, Type::RfidTag},
    };
    SmartCardController controller;
    for (size_t i = 0; i < std::size(cases); ++i) {
        const QVector<unsigned char> atr(cases[i].atr.begin(), cases[i].atr.end());
        EXPECT_EQ(controller.getCardType(atr), cases[i].expected) << "case " << i;
    }
}

TEST(ReaderName, IsUtf8WhenValidAndLatin1OtherwiseSoNoTwoNamesLookAlikeByAccident)
{
    const struct
    {
        std::string bytes;
        QString text;
    } cases[] = {
        {"Reader 00 00", QStringLiteral("Reader 00 00")},
        {"Caf\xC3\xA9 \xF0\x9F\x92\xB3", QString::fromUtf8("Caf\xC3\xA9 \xF0\x9F\x92\xB3")},
        {"\xEF\xBB\xBF" "BOM", QChar(0xFEFF) + QStringLiteral("BOM")}, // kept, not eaten
        {"Caf\xE9", QString::fromUtf8("Caf\xC3\xA9")},                                      // Latin-1
        {"cut \xC3", QString::fromUtf8("cut \xC3\x83")},                                      // truncated
        {"\xC0\xAF", QString::fromUtf8("\xC3\x80\xC2\xAF")},                                // overlong
        {"\xED\xA0\x80", QString::fromUtf8("\xC3\xAD\xC2\xA0\xC2\x80")},                  // surrogate
    };
    for (const auto& c : cases)
        EXPECT_EQ(ReaderName::toText(c.bytes), c.text) << c.bytes;
}

} // namespace
