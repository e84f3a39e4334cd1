#include "FakeStackFixture.h"

#include "RetryingCardReader.h"

namespace {

using namespace FakePcsc;

using CardReading = FakeStack;
using CardPresence = FakeStack;
using IgnoredReaders = FakeStack;

const std::string leave = "Disconnect " + std::to_string(SCARD_LEAVE_CARD);
const std::string reset = "Disconnect " + std::to_string(SCARD_RESET_CARD);

const Reply statusOnly(unsigned char sw1, unsigned char sw2)
{
    return {SCARD_S_SUCCESS, {sw1, sw2}};
}

int warningsAbout(const QString& fragment)
{
    return LogCapture::instance().count({"WARN", "Card on \"A\"", fragment});
}

TEST_F(CardReading, AReadThatFailsWhileTheCardStaysIsTriedAgainAndTheCardReportedOnce)
{
    const struct
    {
        const char* what;
        std::function<void()> fault;
        const char* warning;
        LONG failure;
        // How the failed attempt let go of the card: one that stopped answering is not reset.
        Lines disconnects;
    } faults[] = {
        {"unresponsive", [] { stack.failOnce["Connect"] = SCARD_W_UNRESPONSIVE_CARD; }, "SCardConnect returned:",
         SCARD_W_UNRESPONSIVE_CARD, {}},
        {"reset", [] { stack.failOnce["Status"] = SCARD_W_RESET_CARD; }, "SCardStatus returned:", SCARD_W_RESET_CARD,
         {leave}},
        {"not transacted", [] { stack.failOnce["Transmit"] = SCARD_E_NOT_TRANSACTED; }, "SCardTransmit returned:",
         SCARD_E_NOT_TRANSACTED, {leave}},
        {"status word", [] { stack.cards["A"] = tag({0x01}, statusOnly(0x63, 0x00), 1); }, "Wrong response",
         SCARD_S_SUCCESS, {reset}},
        {"empty UID", [] { stack.cards["A"] = tag({0x01}, statusOnly(0x90, 0x00), 1); }, "empty UID",
         SCARD_S_SUCCESS, {reset}},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.what);
        start();
        stack.readers = {"A"};
        stack.cards["A"] = tag({0x01});
        stack.addWaitSteps(1); // the pause before the second attempt
        fault.fault();

        Lines expected = {"connect A", "rfid A 01", "disconnect A"};
        if (fault.failure != SCARD_S_SUCCESS)
            expected.insert(expected.begin() + 1, errorLine(fault.failure));
        EXPECT_EQ(run(), expected);
        EXPECT_EQ(calls("Connect"), (Lines{"Connect A", "Connect A"}));
        EXPECT_EQ(calls("Pause"), Lines{"Pause 150"});
        EXPECT_EQ(warningsAbout(fault.warning), 1);
        Lines disconnects = fault.disconnects;
        disconnects.push_back(reset);
        EXPECT_EQ(calls("Disconnect"), disconnects);
    }
}

TEST_F(CardReading, ACardThatIsGoneOrOfNoKnownTypeIsNotTriedAgain)
{
    const struct
    {
        const char* what;
        std::function<void()> fault;
    } faults[] = {
        {"of no known type",
         [] { stack.cards["A"] = Card{{0x3F, 0x00}, [](const Bytes&) { return statusOnly(0x90, 0x00); }}; }},
        {"removed while read", [] { stack.failOnce["Transmit"] = SCARD_W_REMOVED_CARD; }},
        {"gone before the connect", [] { stack.failOnce["Connect"] = SCARD_E_NO_SMARTCARD; }},
        // Taken off during the pause before the next attempt.
        {"gone after a failed read",
         [] {
             stack.cards["A"] = tag({0x01}, statusOnly(0x63, 0x00), 1);
             stack.script.push_front([] {
                 stack.cards.erase("A");
                 stack.cardEvents["A"] += 1;
             });
         }},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.what);
        start();
        stack.readers = {"A"};
        stack.cards["A"] = tag({0x01});
        fault.fault();

        for (const std::string& note : run())
            EXPECT_TRUE(note.rfind("rfid ", 0) != 0 && note.rfind("sc ", 0) != 0) << note;
        EXPECT_EQ(calls("Connect"), Lines{"Connect A"});
    }
}

TEST_F(CardReading, ACardSwappedDuringARetryIsLeftToTheLoopAndReadOnce)
{
    stack.readers = {"A"};
    stack.cards["A"] = tag({0x01}, statusOnly(0x63, 0x00), 1);
    stack.script.push_back([] {
        stack.cards["A"] = tag({0x02});
        stack.cardEvents["A"] += 2;
    });

    EXPECT_EQ(run(), (Lines{"connect A", "removed A", "rfid A 02", "disconnect A"}));
    EXPECT_EQ(calls("Connect"), (Lines{"Connect A", "Connect A"}));
}

TEST_F(CardReading, OfAFailingCardOneWarningASecondIsLoggedAndItIsReadAgainAtTheNextRefresh)
{
    const int attempts = RetryingCardReader::attempts;
    stack.readers = {"A", "B"};
    // A fails two refreshes through, B only its first read.
    stack.cards["A"] = tag({0x01}, statusOnly(0x63, 0x00), 2 * attempts);
    stack.cards["B"] = tag({0x02}, statusOnly(0x63, 0x00), 1);
    // Pauses before the attempts and the waits until the refreshes.
    stack.addWaitSteps(attempts + 1 + attempts - 1 + 1);

    EXPECT_EQ(run(), (Lines{"connect A", "connect B", "rfid B 02", "rfid B 02", "rfid A 01", "rfid B 02",
                            "disconnect A", "disconnect B"}));
    EXPECT_EQ(calls("Connect A").size(), 2u * attempts + 1);
    EXPECT_EQ(stack.clockMs, 2 * SmartCardController::refreshInterval.count());
    // The attempts of one refresh go by within a second: one line each time, that of the second
    // with the count of those held back the first time.
    EXPECT_EQ(warningsAbout("Wrong response"), 2);
    EXPECT_EQ(warningsAbout(QStringLiteral("(%1 more warning(s) not logged): Wrong response").arg(attempts - 1)), 1);
    EXPECT_EQ(LogCapture::instance().count({"WARN", "Card on \"B\"", "Wrong response"}), 1);
    EXPECT_EQ(LogCapture::instance().count("Gave up reading the card on \"A\""), 2);
}

TEST_F(CardReading, AStopDuringTheRetryPauseEndsTheRead)
{
    stack.readers = {"A"};
    stack.cards["A"] = tag({0x01}, statusOnly(0x63, 0x00), 1);
    stack.script.push_back([this] { controller->stop(); });

    EXPECT_EQ(run(), (Lines{"connect A", "disconnect A"}));
    EXPECT_EQ(calls("Connect"), Lines{"Connect A"});
}

TEST_F(CardPresence, ACardThatLeavesIsReportedGoneOnItsReaderBeforeTheNextOne)
{
    stack.readers = {"A", "B"};
    stack.cards["A"] = tag({0x01});
    stack.cardEvents["A"] = 1;
    stack.script.push_back([] {
        stack.cards.erase("A");
        stack.cardEvents["A"] += 1;
    });
    stack.script.push_back([] {
        stack.cards["A"] = tag({0x02});
        stack.cardEvents["A"] += 1;
    });
    // Swapped between two waits: present before and after.
    stack.script.push_back([] {
        stack.cards["A"] = tag({0x03});
        stack.cardEvents["A"] += 2;
    });
    // A reader that goes with its card is told of once, as gone.
    stack.script.push_back([] { stack.readers = {"B"}; });

    EXPECT_EQ(run(), (Lines{"connect A", "connect B", "rfid A 01", "removed A", "rfid A 02", "removed A", "rfid A 03",
                            "disconnect A", "disconnect B"}));
}

TEST_F(CardPresence, ACardThatLeftWhileTheStatesWereForgottenIsReportedGone)
{
    const auto changeAtTheRefresh = [](std::function<void()> change) {
        return [change] {
            change();
            stack.clockMs += SmartCardController::refreshInterval.count();
            stack.failOnce["Wait"] = SCARD_E_TIMEOUT;
        };
    };
    stack.readers = {"A", "B", "C"};
    for (const char* reader : {"A", "B", "C"}) {
        stack.cards[reader] = tag({static_cast<unsigned char>(reader[0])});
        stack.cardEvents[reader] = 1;
    }
    stack.script.push_back(changeAtTheRefresh([] {
        stack.cards.erase("A");
        stack.cardEvents["A"] += 1;
        stack.cards["B"] = tag({0x0B});
        stack.cardEvents["B"] += 2;
    }));

    // C's card stayed: read again, not gone.
    EXPECT_EQ(run(), (Lines{"connect A", "connect B", "connect C", "rfid A 41", "rfid B 42", "rfid C 43",
                            "removed A", "removed B", "rfid B 0b", "rfid C 43", "disconnect A", "disconnect B",
                            "disconnect C"}));
}

TEST_F(IgnoredReaders, AreNeverConnectedToAnnouncedOrRead)
{
    stack.readers = {"Hello A", "Keyboard B"};
    stack.cards["Hello A"] = tag({0x01});
    stack.cards["Keyboard B"] = tag({0x02});
    controller->setIgnoredReaders([](const QString& reader) { return reader.startsWith(QStringLiteral("Keyboard")); });
    // Each change has the readers listed again.
    stack.script.push_back([] { stack.cards.erase("Hello A"); });
    stack.script.push_back([] { stack.cards["Keyboard B"] = tag({0x03}); stack.cardEvents["Keyboard B"] += 2; });
    stack.script.push_back([] { stack.readers = {"Hello A"}; });
    stack.script.push_back([] { stack.readers = {"Hello A", "Keyboard B"}; });

    EXPECT_EQ(run(), (Lines{"connect Hello A", "rfid Hello A 01", "removed Hello A", "disconnect Hello A"}));
    EXPECT_EQ(calls("Connect Keyboard"), Lines{});
    for (const std::string& wait : calls("Wait "))
        EXPECT_NE(wait.back(), '3') << "the ignored reader is not watched";
    // Once per appearance, not at every listing.
    EXPECT_EQ(LogCapture::instance().count({"INFO", "Reader ignored:", "Keyboard B"}), 2);
}

} // namespace
