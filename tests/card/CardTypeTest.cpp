#include "SmartCardController.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct AtrCase
{
    const char* name;
    std::vector<unsigned char> atr;
    SmartCardController::CardType expected;
};

void PrintTo(const AtrCase& atrCase, std::ostream* out)
{
    *out << atrCase.name;
}

class CardType : public ::testing::TestWithParam<AtrCase>
{
};

TEST_P(CardType, FollowsTheInterfaceBytesToTheHistoricalBytes)
{
    const AtrCase& atrCase = GetParam();
    SmartCardController controller;
    const QVector<unsigned char> atr(atrCase.atr.begin(), atrCase.atr.end());
    EXPECT_EQ(controller.getCardType(atr), atrCase.expected);
}

using T = SmartCardController::CardType;

INSTANTIATE_TEST_SUITE_P(
    Atrs, CardType,
    ::testing::Values(
        AtrCase{"AcosWithoutInterfaceBytes", {0x3B, 0x02, 0x41, 0x01}, T::AcosSmartCard},
        AtrCase{"AcosAfterTa1Tb1Td1", {0x3B, 0xBE, 0x11, 0x00, 0x00, 0x41, 0x01, 0x38, 0x00, 0x00}, T::AcosSmartCard},
        AtrCase{"ContactlessTagAfterTd2",
                {0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00, 0x03, 0x06, 0x03, 0x00, 0x01, 0x00,
                 0x00, 0x00, 0x00, 0x6A},
                T::RfidTag},
        AtrCase{"NoHistoricalBytes", {0x3B, 0x00}, T::RfidTag},
        AtrCase{"OneHistoricalByteIsNotEnoughForTheMark", {0x3B, 0x01, 0x41}, T::RfidTag},
        AtrCase{"MarkInTheWrongPlace", {0x3B, 0x03, 0x00, 0x41, 0x01}, T::RfidTag},
        AtrCase{"InverseConvention", {0x3F, 0x02, 0x41, 0x01}, T::Unknown},
        AtrCase{"Empty", {}, T::Unknown},
        AtrCase{"OnlyTs", {0x3B}, T::Unknown},
        // Cut-off ATRs must be classified without reading past their end.
        AtrCase{"Td1AnnouncedButMissing", {0x3B, 0x82}, T::RfidTag},
        AtrCase{"Td2AnnouncedButMissing", {0x3B, 0x8F, 0x80}, T::RfidTag},
        AtrCase{"InterfaceBytesMissing", {0x3B, 0x72}, T::RfidTag},
        AtrCase{"HistoricalBytesMissing", {0x3B, 0x02}, T::RfidTag},
        AtrCase{"SecondHistoricalByteMissing", {0x3B, 0x02, 0x41}, T::RfidTag},
        AtrCase{"TdChainRunsOffTheEnd", {0x3B, 0x8E, 0x80, 0x80, 0x80, 0x80}, T::RfidTag}),
    [](const ::testing::TestParamInfo<AtrCase>& info) { return std::string(info.param.name); });

} // namespace
