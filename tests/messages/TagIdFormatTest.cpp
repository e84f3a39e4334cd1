#include "TagIdFormat.h"

#include "PrintQString.h"

#include <gtest/gtest.h>

namespace {

QByteArray bytes(const char* hex)
{
    return QByteArray::fromHex(hex);
}

QString render(const char* setting, const char* uidHex)
{
    const std::optional<TagIdFormat> format = TagIdFormat::fromSetting(QString::fromLatin1(setting));
    return format ? format->render(bytes(uidHex)) : QStringLiteral("<refused>");
}

TEST(TagIdFormat, KnownVectorsInEveryForm)
{
    EXPECT_EQ(render("hex", "4cdda15f"), "4cdda15f");
    EXPECT_EQ(render("hex-reversed", "4cdda15f"), "5fa1dd4c");
    EXPECT_EQ(render("decimal", "4cdda15f"), "1289593183");
    EXPECT_EQ(render("decimal-reversed", "4cdda15f"), "1604443468");
    // 7 bytes: 56 bits; 10 bytes: past 64 bits.
    EXPECT_EQ(render("decimal", "04a224b2c45e80"), "1304178408578688");
    EXPECT_EQ(render("decimal", "ffffffffffffffffffff"), "1208925819614629174706175");
    EXPECT_EQ(render("decimal-reversed", "0100000000000000000000"), "1");
    // No leading zeros, but zero is still a number.
    EXPECT_EQ(render("decimal", "0000002a"), "42");
    EXPECT_EQ(render("decimal", "00000000"), "0");
}

TEST(TagIdFormat, SettingWordsAreExactApartFromCaseAndSpaces)
{
    EXPECT_EQ(render(" Decimal ", "0a"), "10");
    EXPECT_EQ(render("dec", "0a"), "<refused>");
    EXPECT_EQ(render("", "0a"), "<refused>");
    EXPECT_EQ(render("hex reversed", "0a"), "<refused>");
}

} // namespace
