// Protocol 2 beside the original one, through the built service on a private PC/SC stack, with
// the settings that shape what both kinds of client get; the original clients' texts must not
// change by a byte.
#include "OriginalTexts.h"
#include "Protocol2Summary.h"
#include "ServiceFixture.h"

#include <gtest/gtest.h>

namespace {

class Protocol2EndToEnd : public ServiceFixture
{
protected:
    static std::string next2(TestWsClient& client)
    {
        const std::string text = next(client);
        return text == "<nothing>" ? text : protocol2Summary(QString::fromStdString(text)).toStdString();
    }
};

TEST_F(Protocol2EndToEnd, IgnoredReadersAliasesIdFormatAndRepeatWindowHoldAcrossAPcscdRestart)
{
    service.writeSettings({{"readers/ignore", "*00 01"},
                           {"readers/alias.1", "*reader 00 ?? => Entrance"},
                           {"tagidformat", "decimal"},
                           {"repeatwindow", 60000}});
    startPcscd();
    startServiceWithReaders(1);
    EXPECT_TRUE(service.waitForLog(QStringLiteral("Reader ignored:")));

    auto original = connectClient(false);
    auto version2 = connectClient(true);
    EXPECT_EQ(next(*original), OriginalTexts::reader("Entrance", true));
    EXPECT_EQ(next(*original), OriginalTexts::version);
    EXPECT_EQ(next2(*version2), "READER CONNECTED Entrance");
    EXPECT_EQ(next2(*version2), "VERSION");

    // The ignored reader's card is never read: the first message is the other reader's card.
    auto ignored = layOn(1, ServiceFixture::tag("0badcafe"));
    auto tag = layOn(0, ServiceFixture::tag("4cdda15f"));
    EXPECT_EQ(next(*original), OriginalTexts::card("TAG", "1289593183"));
    EXPECT_EQ(next2(*version2), "TAG Entrance 1289593183 new uid=4cdda15f seq=1");

    // Laid again within the repeat window: neither the tap nor its lift is told.
    tag->takeAway();
    EXPECT_EQ(next2(*version2), "REMOVED Entrance 1289593183 seq=2");
    tag = layOn(0, ServiceFixture::tag("4cdda15f"));
    ASSERT_TRUE(waitUntil([&] { return service.countInLog(QStringLiteral("within the repeat window")) == 1; },
                          eventTimeoutMs));
    tag->takeAway();
    auto other = layOn(0, ServiceFixture::tag("01020304"));
    EXPECT_EQ(next(*original), OriginalTexts::card("TAG", "16909060"));
    EXPECT_EQ(next2(*version2), "TAG Entrance 16909060 new uid=01020304 seq=3");

    pcscd.kill();
    EXPECT_EQ(next(*original), OriginalTexts::reader("Entrance", false));
    EXPECT_EQ(next2(*version2), "REMOVED Entrance 16909060 seq=4");
    EXPECT_EQ(next2(*version2), "READER DISCONNECTED Entrance");
    ASSERT_TRUE(pcscd.restart()) << pcscd.lastError().toStdString();
    EXPECT_EQ(next(*original), OriginalTexts::reader("Entrance", true));
    EXPECT_EQ(next2(*version2), "READER CONNECTED Entrance");
    // Nothing of the ignored reader came in between: the next message is the card.
    other = layOn(0, ServiceFixture::tag("01020305"));
    EXPECT_EQ(next(*original), OriginalTexts::card("TAG", "16909061"));
    EXPECT_EQ(next2(*version2), "TAG Entrance 16909061 new uid=01020305 seq=5");
    EXPECT_EQ(service.countInLog(QStringLiteral("0badcafe")), 0);
}

} // namespace
