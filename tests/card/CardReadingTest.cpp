#include "FakeStackFixture.h"

namespace {

using namespace FakePcsc;

using CardReading = FakeStackTest;

const Bytes readUid = {0xFF, 0xCA, 0x00, 0x00, 0x00};
const Bytes selectMcuIdFile = {0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00};
const Bytes readMcuIdRecord = {0x80, 0xB2, 0x00, 0x00, 0x08};
const Bytes selectBaseFile = {0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x01};

// An ACOS card answering normally except for one command.
Card acosAnswering(const Bytes& command, Reply reply)
{
    const Card normal = acosCard({1, 2, 3, 4, 5, 6, 7, 8});
    return cardWithAtr(normal.atr, [normal, command, reply](const Bytes& received) {
        return received == command ? reply : normal.respond(received);
    });
}

Card tagAnswering(Reply reply)
{
    return cardWithAtr(tag({}).atr, [reply](const Bytes&) { return reply; });
}

TEST_F(CardReading, TagUidIsReportedAsLowerCaseHexWithinOneTransaction)
{
    setReaders({"A"});
    layCard("A", tag({0x04, 0xA1, 0x0B, 0x7F}));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", "rfid 04a10b7f", cancelled()}));
    EXPECT_EQ(readSequence(), (std::vector<std::string>{"Connect A", "Begin", "Status", "Transmit ff ca 00 00 00",
                                                        "rfid 04a10b7f", "End 0", "Disconnect 1"}));
    // The command goes out with the protocol the connection negotiated.
    EXPECT_EQ(lastSendPci().dwProtocol, DWORD(SCARD_PROTOCOL_T1));
    EXPECT_TRUE(LogCapture::instance().contains("Got RFID tag."));
}

TEST_F(CardReading, AcosCardReportsItsMcuIdThenSelectsTheBaseFile)
{
    setReaders({"A"});
    layCard("A", acosCard({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
    addWaitSteps(1);

    run();
    EXPECT_EQ(readSequence(),
              (std::vector<std::string>{"Connect A", "Begin", "Status", "Transmit 80 a4 00 00 02 ff 00",
                                        "Transmit 80 b2 00 00 08", "sc 0102030405060708",
                                        "Transmit 80 a4 00 00 02 00 01", "End 0", "Disconnect 1"}));
    EXPECT_TRUE(LogCapture::instance().contains("Got ACOS smart card."));
}

TEST_F(CardReading, DirectConventionCardsWithoutTheAcosMarkAreReadAsTagsAndOthersNotAtAll)
{
    setReaders({"Contact", "Inverse"});
    layCard("Contact", cardWithAtr({0x3B, 0x00}, tag({0x11, 0x22}).respond));
    layCard("Inverse", cardWithAtr({0x3F, 0x02, 0x41, 0x01}, acosCard({1}).respond));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect Contact", "connect Inverse", "rfid 1122", cancelled()}));
    EXPECT_EQ(readSequence(),
              (std::vector<std::string>{"Connect Contact", "Begin", "Status", "Transmit ff ca 00 00 00", "rfid 1122",
                                        "End 0", "Disconnect 1", "Connect Inverse", "Begin", "Status", "End 0",
                                        "Disconnect 1"}));
    EXPECT_TRUE(LogCapture::instance().contains("Got unknown card."));
}

struct AnswerCase
{
    const char* name;
    Card card;
    QStringList expectedEvents;
    QString expectedLog;
};

void PrintTo(const AnswerCase& answerCase, std::ostream* out)
{
    *out << answerCase.name;
}

class CardAnswers : public FakeStackTest, public ::testing::WithParamInterface<AnswerCase>
{
};

TEST_P(CardAnswers, OnlyAWellFormedAnswerYieldsAnIdentifier)
{
    const AnswerCase& answer = GetParam();
    setReaders({"A"});
    layCard("A", answer.card);
    addWaitSteps(1);

    run();
    EXPECT_EQ(cardEvents(), answer.expectedEvents);
    if (!answer.expectedLog.isEmpty()) {
        EXPECT_TRUE(LogCapture::instance().contains(answer.expectedLog))
            << LogCapture::instance().lines().join('\n').toStdString();
    }
}

const QString wrongStatus = QStringLiteral("Wrong response -> SW1SW2 != 0x9000");
const QString mcuIdFileFailed = QStringLiteral("Select file 0xff, 0x00 failed.");
const QString mcuIdReadFailed = QStringLiteral("Failed to read MCU ID from card.");

INSTANTIATE_TEST_SUITE_P(
    StatusWords, CardAnswers,
    ::testing::Values(
        AnswerCase{"TagWithEightByteUidFillsTheBuffer", tag({1, 2, 3, 4, 5, 6, 7, 0xFF}), {"rfid 01020304050607ff"}, {}},
        AnswerCase{"TagWithOnlyAStatusWordHasAnEmptyId", tagAnswering({SCARD_S_SUCCESS, {0x90, 0x00}}), {"rfid "}, {}},
        AnswerCase{"TagAnsweringOneByte", tagAnswering({SCARD_S_SUCCESS, {0x90}}), {}, wrongStatus},
        AnswerCase{"TagAnsweringNothing", tagAnswering({SCARD_S_SUCCESS, {}}), {}, wrongStatus},
        AnswerCase{"TagAnsweringAnError", tagAnswering({SCARD_S_SUCCESS, {0x6A, 0x82}}), {}, wrongStatus},
        AnswerCase{"TagUidTooLongForTheBuffer",
                   tag({1, 2, 3, 4, 5, 6, 7, 8, 9}),
                   {"error 80100008 The data buffer for returned data is too small for the returned data."},
                   {}},
        AnswerCase{"AcosSelectAnswered9100", acosAnswering(selectMcuIdFile, {SCARD_S_SUCCESS, {0x91, 0x00}}),
                   {"sc 0102030405060708"}, {}},
        AnswerCase{"AcosSelectAnsweredWithDataBeforeTheStatus",
                   acosAnswering(selectMcuIdFile, {SCARD_S_SUCCESS, {0x00, 0x90, 0x00}}), {}, mcuIdFileFailed},
        AnswerCase{"AcosSelectAnswered9101", acosAnswering(selectMcuIdFile, {SCARD_S_SUCCESS, {0x91, 0x01}}), {},
                   mcuIdFileFailed},
        AnswerCase{"AcosSelectTransmitFails", acosAnswering(selectMcuIdFile, {SCARD_W_REMOVED_CARD, {}}),
                   {"error 80100069 The smart card has been removed and no further communication is possible."},
                   QStringLiteral("SELECT FILE failed.")},
        AnswerCase{"AcosRecordAnsweredOneByte", acosAnswering(readMcuIdRecord, {SCARD_S_SUCCESS, {0x90}}), {},
                   mcuIdReadFailed},
        AnswerCase{"AcosRecordAnsweredWithAnError", acosAnswering(readMcuIdRecord, {SCARD_S_SUCCESS, {0x6A, 0x83}}),
                   {}, mcuIdReadFailed},
        AnswerCase{"AcosRecordShorterThanAsked", acosAnswering(readMcuIdRecord, {SCARD_S_SUCCESS, {0xAB, 0x90, 0x00}}),
                   {"sc ab"}, {}},
        AnswerCase{"AcosBaseFileMissingAfterTheId", acosAnswering(selectBaseFile, {SCARD_S_SUCCESS, {0x6A, 0x82}}),
                   {"sc 0102030405060708"}, QStringLiteral("Failed to select the base file")}),
    [](const ::testing::TestParamInfo<AnswerCase>& info) { return std::string(info.param.name); });

TEST_F(CardReading, FailedConnectReadsNothingAndClosesNothing)
{
    setReaders({"A"});
    layCard("A", tag({1}));
    failCall(Call::Connect, SCARD_E_SHARING_VIOLATION);
    addWaitSteps(1);

    run();
    EXPECT_EQ(cardEvents(),
              QStringList({"error 8010000b The smart card cannot be accessed because of other outstanding connections."}));
    EXPECT_EQ(readSequence(),
              (std::vector<std::string>{"Connect A",
                                        "error 8010000b The smart card cannot be accessed because of other "
                                        "outstanding connections."}));
}

TEST_F(CardReading, FailedTransactionStartDoesNotStopTheRead)
{
    setReaders({"A"});
    layCard("A", tag({0x42}));
    failCall(Call::Begin, SCARD_E_SHARING_VIOLATION);
    addWaitSteps(1);

    run();
    EXPECT_EQ(cardEvents(), QStringList({"error 8010000b The smart card cannot be accessed because of other "
                                         "outstanding connections.",
                                         "rfid 42"}));
}

TEST_F(CardReading, FailedStatusLeavesTheCardUnknownButStillReleasesIt)
{
    setReaders({"A"});
    layCard("A", tag({0x42}));
    failCall(Call::Status, SCARD_W_REMOVED_CARD);
    addWaitSteps(1);

    run();
    EXPECT_EQ(readSequence(),
              (std::vector<std::string>{
                  "Connect A", "Begin", "Status",
                  "error 80100069 The smart card has been removed and no further communication is possible.", "End 0",
                  "Disconnect 1"}));
    EXPECT_TRUE(LogCapture::instance().contains("Got unknown card."));
}

TEST_F(CardReading, CardPulledMidReadReportsEveryFailureAndNoIdentifier)
{
    setReaders({"A", "B"});
    layCard("A", acosAnswering(readMcuIdRecord, {SCARD_W_REMOVED_CARD, {}}));
    layCard("B", tag({0x42}));
    failCall(Call::End, SCARD_W_REMOVED_CARD);
    failCall(Call::Disconnect, SCARD_W_REMOVED_CARD);
    addWaitSteps(1);

    run();
    const QString removed =
        QStringLiteral("error 80100069 The smart card has been removed and no further communication is possible.");
    // The failed card does not hold up the next reader's card.
    EXPECT_EQ(cardEvents(), QStringList({removed, removed, removed, "rfid 42", removed, removed}));
    EXPECT_TRUE(LogCapture::instance().contains(mcuIdReadFailed));
}

} // namespace
