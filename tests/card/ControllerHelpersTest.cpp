#include "ApduResponse.h"
#include "CardType.h"

#include <gtest/gtest.h>

namespace {

using Type = CardType;

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
    for (size_t i = 0; i < std::size(cases); ++i) {
        const QVector<unsigned char> atr(cases[i].atr.begin(), cases[i].atr.end());
        EXPECT_EQ(cardTypeOf(atr), cases[i].expected) << "case " << i;
    }
}

TEST(ApduResponse, TellsTheStatusOnlyOfAReplyLongEnoughToHoldIt)
{
    using Bytes = ApduResponse::Bytes;
    for (const Bytes& tooShort : {Bytes{}, Bytes{0x90}, Bytes{0x00}}) {
        const ApduResponse reply(tooShort);
        EXPECT_FALSE(reply.isOk()) << tooShort.size();
        EXPECT_FALSE(reply.hasStatus(0x90, 0x00)) << tooShort.size();
        EXPECT_EQ(reply.data(), Bytes{}) << tooShort.size();
    }

    EXPECT_TRUE(ApduResponse({0x90, 0x00}).isOk());
    EXPECT_EQ(ApduResponse({0x90, 0x00}).data(), Bytes{});

    const ApduResponse alsoSelected({0x91, 0x00});
    EXPECT_FALSE(alsoSelected.isOk());
    EXPECT_TRUE(alsoSelected.hasStatus(0x91, 0x00));

    EXPECT_EQ(ApduResponse({0x04, 0xA1, 0x90, 0x00}).data(), (Bytes{0x04, 0xA1}));
    // The status word is the last two bytes, wherever else 90 00 appears.
    EXPECT_FALSE(ApduResponse({0x90, 0x00, 0x6A, 0x82}).isOk());
}

} // namespace
