#include "CardEventPublisher.h"

#include "PrintQString.h"
#include "Protocol2Summary.h"
#include "ReaderCommand.h"
#include "TagCommand.h"
#include "VersionCommand.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

// The publisher with a clock the test moves, and what each kind of client was sent.
class Publisher : public ::testing::Test
{
protected:
    void make(CardEventPublisher::Options options = {})
    {
        publisher = std::make_unique<CardEventPublisher>(
            std::move(options), QStringLiteral("0.25"),
            [this](const ProtocolTexts& texts) {
                if (!texts.original.isEmpty())
                    original << texts.original;
                if (!texts.version2.isEmpty())
                    version2 << protocol2Summary(texts.version2);
            },
            [this] { return clock; });
    }

    void SetUp() override { make(); }

    QStringList greeting(ClientProtocol protocol)
    {
        QStringList texts;
        publisher->greet(protocol, [&](const QStringList& greeting) { texts = greeting; });
        if (protocol == ClientProtocol::Version2) {
            for (QString& text : texts)
                text = protocol2Summary(text);
        }
        return texts;
    }

    std::unique_ptr<CardEventPublisher> publisher;
    CardEventPublisher::Clock::time_point clock{};
    QStringList original;
    QStringList version2;
    const QString reader = QStringLiteral("Virtual PCD 00 00");
    const QByteArray uid = QByteArray::fromHex("4cdda15f");
};

TEST_F(Publisher, OriginalClientsGetTodaysTextsWhileProtocol2AddsReaderRepeatSeqAndRemovals)
{
    publisher->readerConnected(reader);
    publisher->tagRead(reader, uid);
    publisher->tagRead(reader, uid); // the refresh's re-read
    publisher->cardRemoved(reader);
    publisher->smartCardRead(reader, QByteArray::fromHex("0102030405060708"));
    publisher->tagRead(reader, uid); // swapped without a removal seen in between
    publisher->readerDisconnected(reader);

    const QString tag = TagCommand::build("4cdda15f");
    EXPECT_EQ(original, QStringList({ReaderCommand::build(reader, true), tag, tag,
                                     QStringLiteral("{\n    \"error\": null,\n    \"tag_id\": \"0102030405060708\",\n"
                                                    "    \"type\": \"SC\"\n}\n"),
                                     tag, ReaderCommand::build(reader, false)}));
    EXPECT_EQ(version2, QStringList({
                            "READER CONNECTED " + reader,
                            "TAG " + reader + " 4cdda15f new uid=4cdda15f seq=1",
                            "TAG " + reader + " 4cdda15f repeat uid=4cdda15f seq=2",
                            "REMOVED " + reader + " 4cdda15f seq=3",
                            "SC " + reader + " 0102030405060708 new seq=4",
                            "REMOVED " + reader + " 0102030405060708 seq=5",
                            "TAG " + reader + " 4cdda15f new uid=4cdda15f seq=6",
                            "REMOVED " + reader + " 4cdda15f seq=7",
                            "READER DISCONNECTED " + reader,
                        }));
}

TEST_F(Publisher, AProtocol2GreetingShowsTheCardsLyingOnReaders)
{
    const QString other = QStringLiteral("Virtual PCD 00 01");
    publisher->readerConnected(reader);
    publisher->readerConnected(other);
    publisher->tagRead(other, uid);

    EXPECT_EQ(greeting(ClientProtocol::Original),
              QStringList({ReaderCommand::build(reader, true), ReaderCommand::build(other, true),
                           VersionCommand::build("0.25")}));
    EXPECT_EQ(greeting(ClientProtocol::Version2),
              QStringList({"READER CONNECTED " + reader, "READER CONNECTED " + other,
                           "TAG " + other + " 4cdda15f repeat uid=4cdda15f seq=1", "VERSION"}));

    publisher->cardRemoved(other);
    EXPECT_EQ(greeting(ClientProtocol::Version2).size(), 3);
}

TEST_F(Publisher, AliasesAndIdFormatsApplyToBothProtocolsButTheUidStaysHex)
{
    make({TagIdFormat(TagIdFormat::Form::DecimalReversed),
          ReaderRules({}, {ReaderRules::parseAlias("Virtual PCD 00 * => Entrance")}), 0ms});
    publisher->readerConnected(reader);
    publisher->tagRead(reader, uid);
    publisher->smartCardRead(reader, QByteArray::fromHex("0a0b"));

    EXPECT_EQ(original.mid(0, 2), QStringList({ReaderCommand::build("Entrance", true), TagCommand::build("1604443468")}));
    EXPECT_TRUE(original[2].contains("\"tag_id\": \"0a0b\"")) << "smart card IDs stay hex";
    EXPECT_EQ(version2.mid(0, 3), QStringList({"READER CONNECTED Entrance", "TAG Entrance 1604443468 new uid=4cdda15f seq=1",
                                               "REMOVED Entrance 1604443468 seq=2"}));
}

TEST_F(Publisher, ACardLaidAgainWithinTheRepeatWindowIsNotReportedAgain)
{
    make({TagIdFormat(), ReaderRules(), 2000ms});
    publisher->readerConnected(reader);
    publisher->tagRead(reader, uid);
    publisher->cardRemoved(reader);

    // Within the window: held back, and so is its removal and any re-report.
    clock += 1500ms;
    publisher->tagRead(reader, uid);
    publisher->tagRead(reader, uid);
    clock += 500ms;
    publisher->cardRemoved(reader);
    // The window runs from the latest removal; another card is not held back at all.
    clock += 1999ms;
    publisher->tagRead(reader, uid);
    publisher->cardRemoved(reader);
    publisher->tagRead(reader, QByteArray::fromHex("01020304"));
    publisher->cardRemoved(reader);
    clock += 2001ms;
    publisher->tagRead(reader, uid);

    EXPECT_EQ(version2, QStringList({
                            "READER CONNECTED " + reader,
                            "TAG " + reader + " 4cdda15f new uid=4cdda15f seq=1",
                            "REMOVED " + reader + " 4cdda15f seq=2",
                            "TAG " + reader + " 01020304 new uid=01020304 seq=3",
                            "REMOVED " + reader + " 01020304 seq=4",
                            "TAG " + reader + " 4cdda15f new uid=4cdda15f seq=5",
                        }));
    EXPECT_EQ(original.size(), 4) << original.join("").toStdString();
}

} // namespace
