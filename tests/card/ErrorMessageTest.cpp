#include "SmartCardController.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

const QString undocumented = QStringLiteral("Error is not documented.");

int code(quint32 value)
{
    return static_cast<int>(value);
}

TEST(ErrorMessage, KeepsTheExactWordingOfItsTexts)
{
    SmartCardController controller;
    EXPECT_EQ(controller.getErrorMessage(code(0x80100001)), "An internal consistency check failed.");
    EXPECT_EQ(controller.getErrorMessage(code(0x80100002)), "The action was canceled by an SCardCancel request.");
    EXPECT_EQ(controller.getErrorMessage(code(0x80100016)), "An attempt was made to end a non-existent transaction.");
    EXPECT_EQ(controller.getErrorMessage(code(0x80100017)), "The specified reader is not currently available for use.");
    EXPECT_EQ(controller.getErrorMessage(code(0x80100019)), "The PCI receive buffer was too small.");
    EXPECT_EQ(controller.getErrorMessage(code(0x8010001B)), "The reader driver didn't produce a unique reader name.");
    EXPECT_EQ(controller.getErrorMessage(code(0x8010001E)), "The smart card resource manager has shut down.");
    EXPECT_EQ(controller.getErrorMessage(code(0x80100065)),
              "The reader cannot communicate with the card due to ATR string configuration conflicts.");
    EXPECT_EQ(controller.getErrorMessage(code(0x80100069)),
              "The smart card has been removed and no further communication is possible.");
}

TEST(ErrorMessage, LeavesTheGapsAndEverythingOutsideTheRangeUndocumented)
{
    SmartCardController controller;
    for (quint32 value = 0x80100001; value <= 0x80100069; ++value) {
        const bool gap = value == 0x80100018 || (value >= 0x8010001F && value <= 0x80100064);
        EXPECT_EQ(controller.getErrorMessage(code(value)) == undocumented, gap) << std::hex << value;
    }
    for (int outside : {0, 1, -1, INT_MIN, INT_MAX, code(0x80100000), code(0x8010006A), code(0x80100070)})
        EXPECT_EQ(controller.getErrorMessage(outside), undocumented) << outside;
}

TEST(ErrorMessage, SignedAndUnsignedFormsOfACodeAgree)
{
    SmartCardController controller;
    EXPECT_EQ(controller.getErrorMessage(-2146435070), controller.getErrorMessage(code(0x80100002)));
    EXPECT_EQ(controller.getErrorMessage(-2146434967), controller.getErrorMessage(code(0x80100069)));
}

} // namespace
