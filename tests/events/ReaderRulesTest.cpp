#include "ReaderRules.h"

#include "PrintQString.h"

#include <gtest/gtest.h>

namespace {

TEST(ReaderRules, WildcardsMatchWholeNamesWithoutCase)
{
    const auto m = [](const char* pattern, const char* name) {
        return ReaderRules::matches(QString::fromUtf8(pattern), QString::fromUtf8(name));
    };
    EXPECT_TRUE(m("Virtual PCD 00 *", "Virtual PCD 00 01"));
    EXPECT_TRUE(m("virtual pcd 0? 0?", "Virtual PCD 00 01"));
    EXPECT_TRUE(m("*Yubi*", "Yubico YubiKey OTP+FIDO+CCID 00 00"));
    EXPECT_TRUE(m("*", ""));
    EXPECT_TRUE(m("a*b*c", "aXbYbZc"));
    EXPECT_FALSE(m("Virtual PCD", "Virtual PCD 00 00")) << "a pattern covers the whole name";
    EXPECT_FALSE(m("?", ""));
    EXPECT_FALSE(m("a*b*c", "aXbYbZ"));
}

} // namespace
