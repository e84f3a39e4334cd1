// Protocol 2 beside the original one, through the built service on a private PC/SC stack:
// the original clients' texts must not change by a byte.
#include "OriginalTexts.h"
#include "ServiceFixture.h"
#include "TestWsClient.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

using VirtualCards::CardPersonality;
using VirtualCards::parseHex;

// A refresh of the reader list comes every 15 s; a loaded two-core machine needs room on top.
constexpr int eventTimeoutMs = 45000;

// Protocol 2 messages in short: "TAG <reader> <tag_id> new|repeat uid=<uid> seq=<n>",
// "REMOVED <reader> <tag_id> seq=<n>", "READER CONNECTED <name>", "VERSION".
std::string summary(const QString& text)
{
    const QJsonObject m = QJsonDocument::fromJson(text.toUtf8()).object();
    const QString type = m.value("type").toString();
    QString line = type;
    if (type == "READER")
        line += " " + m.value("event").toString() + " " + m.value("name").toString();
    if (m.contains("reader"))
        line += " " + m.value("reader").toString() + " " + m.value("tag_id").toString();
    if (m.contains("repeat"))
        line += m.value("repeat").toBool() ? " repeat" : " new";
    if (m.contains("uid"))
        line += " uid=" + m.value("uid").toString();
    if (m.contains("seq"))
        line += " seq=" + QString::number(m.value("seq").toInt());
    return line.toStdString();
}

class Protocol2EndToEnd : public ServiceFixture
{
protected:
    std::unique_ptr<TestWsClient> connectClient(bool version2)
    {
        auto client = std::make_unique<TestWsClient>();
        if (version2)
            client->setSubprotocols({QStringLiteral("chat"), QStringLiteral("tiv-rfid.2")});
        EXPECT_TRUE(client->connect(port)) << client->lastError().toStdString();
        EXPECT_EQ(client->subprotocol().toStdString(), version2 ? "tiv-rfid.2" : "");
        return client;
    }

    static std::string next(TestWsClient& client)
    {
        const std::optional<QString> message = client.nextMessage(eventTimeoutMs);
        return message ? message->toStdString() : std::string("<nothing>");
    }

    static std::string next2(TestWsClient& client)
    {
        const std::optional<QString> message = client.nextMessage(eventTimeoutMs);
        return message ? summary(*message) : std::string("<nothing>");
    }
};

TEST_F(Protocol2EndToEnd, BothProtocolsThroughATapItsReReportALateClientALiftAndTheLossOfPcscd)
{
    startPcscd();
    startServiceWithReaders();
    const QString first = pcscd.readerName(0);
    const QString second = pcscd.readerName(1);
    const std::string r0 = first.toStdString();
    const std::string r1 = second.toStdString();

    auto original = connectClient(false);
    auto version2 = connectClient(true);
    EXPECT_EQ(next(*original), OriginalTexts::reader(first, true));
    EXPECT_EQ(next(*original), OriginalTexts::reader(second, true));
    EXPECT_EQ(next(*original), OriginalTexts::version);
    EXPECT_EQ(next2(*version2), "READER CONNECTED " + r0);
    EXPECT_EQ(next2(*version2), "READER CONNECTED " + r1);
    EXPECT_EQ(next2(*version2), "VERSION");

    auto tag = layOn(0, ServiceFixture::tag("4cdda15f"));
    EXPECT_EQ(next(*original), OriginalTexts::card("TAG", "4cdda15f"));
    EXPECT_EQ(next2(*version2), "TAG " + r0 + " 4cdda15f new uid=4cdda15f seq=1");
    // Still lying there at the next refresh of the reader list.
    EXPECT_EQ(next(*original), OriginalTexts::card("TAG", "4cdda15f"));
    EXPECT_EQ(next2(*version2), "TAG " + r0 + " 4cdda15f repeat uid=4cdda15f seq=2");

    auto late = connectClient(true);
    EXPECT_EQ(next2(*late), "READER CONNECTED " + r0);
    EXPECT_EQ(next2(*late), "READER CONNECTED " + r1);
    EXPECT_EQ(next2(*late), "TAG " + r0 + " 4cdda15f repeat uid=4cdda15f seq=2");
    EXPECT_EQ(next2(*late), "VERSION");

    tag->takeAway();
    for (TestWsClient* each : {version2.get(), late.get()})
        EXPECT_EQ(next2(*each), "REMOVED " + r0 + " 4cdda15f seq=3");
    // The original client's next message is the next card: it got nothing for the lift.
    auto acos = layOn(1, CardPersonality::acosCard(*parseHex("0102030405060708")));
    EXPECT_EQ(next(*original), OriginalTexts::card("SC", "0102030405060708"));
    EXPECT_EQ(next2(*version2), "SC " + r1 + " 0102030405060708 new seq=4");

    // A reader that goes with a card on it: the card left first.
    pcscd.kill();
    EXPECT_EQ(next(*original), OriginalTexts::reader(first, false));
    EXPECT_EQ(next(*original), OriginalTexts::reader(second, false));
    EXPECT_EQ(next2(*version2), "READER DISCONNECTED " + r0);
    EXPECT_EQ(next2(*version2), "REMOVED " + r1 + " 0102030405060708 seq=5");
    EXPECT_EQ(next2(*version2), "READER DISCONNECTED " + r1);
}

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
