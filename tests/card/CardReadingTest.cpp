#include "FakeStackFixture.h"

namespace {

using namespace FakePcsc;

const Bytes readUid = {0xFF, 0xCA, 0x00, 0x00, 0x00};
const Bytes selectMcuIdFile = {0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00};
const Bytes readMcuIdRecord = {0x80, 0xB2, 0x00, 0x00, 0x08};
const Bytes selectBaseFile = {0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x01};
const std::string sharingViolation =
    "error 8010000b The smart card cannot be accessed because of other outstanding connections.";
const std::string removedCard =
    "error 80100069 The smart card has been removed and no further communication is possible.";

Reply answer(Bytes bytes)
{
    return {SCARD_S_SUCCESS, std::move(bytes)};
}

using CardReading = FakeStack;

TEST_F(CardReading, OnlyAWellFormedAnswerYieldsAnIdentifierAndACardOnceConnectedIsReleased)
{
    const Card acos = acosCard({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08});
    const QString wrongStatus = "Wrong response -> SW1SW2 != 0x9000";
    const QString noMcuIdFile = "Select file 0xff, 0x00 failed.";
    const QString noMcuId = "Failed to read MCU ID from card.";
    const struct
    {
        Card card;
        std::map<std::string, LONG> failures;
        Lines expected;
        QString log;
    } cases[] = {
        {tag({1, 2, 3, 4, 5, 6, 7, 0xFF}), {}, {"rfid 01020304050607ff"}, {}}, // fills the reply buffer
        {tag({1, 2, 3, 4, 5, 6, 7, 8, 9}), {},
         {"error 80100008 The data buffer for returned data is too small for the returned data."}, {}},
        {tag({}), {}, {"rfid "}, {}}, // the status word alone
        {answering(tag({}), readUid, answer({0x90})), {}, {}, wrongStatus}, // too short for a status word
        {answering(tag({}), readUid, answer({0x6A, 0x82})), {}, {}, wrongStatus},
        {answering(acos, selectMcuIdFile, answer({0x91, 0x00})), {}, {"sc 0102030405060708"}, {}},
        {answering(acos, selectMcuIdFile, answer({0x00, 0x90, 0x00})), {}, {}, noMcuIdFile}, // data before it
        {answering(acos, selectMcuIdFile, answer({0x91, 0x01})), {}, {}, noMcuIdFile},
        {answering(acos, selectMcuIdFile, {SCARD_W_REMOVED_CARD, {}}), {}, {removedCard}, "SELECT FILE failed."},
        {answering(acos, readMcuIdRecord, answer({0x90})), {}, {}, noMcuId},
        {answering(acos, readMcuIdRecord, answer({0x6A, 0x83})), {}, {}, noMcuId},
        {answering(acos, readMcuIdRecord, answer({0xAB, 0x90, 0x00})), {}, {"sc ab"}, {}}, // shorter than asked
        {answering(acos, selectBaseFile, answer({0x6A, 0x82})), {}, {"sc 0102030405060708"},
         "Failed to select the base file"},
        {tag({0x42}), {{"Connect", SCARD_E_SHARING_VIOLATION}}, {sharingViolation}, {}},
        // A card that refuses the transaction is still worth reading.
        {tag({0x42}), {{"Begin", SCARD_E_SHARING_VIOLATION}}, {sharingViolation, "rfid 42"}, {}},
        {tag({0x42}), {{"Status", SCARD_W_REMOVED_CARD}}, {removedCard}, "Got unknown card."},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(::testing::Message() << "case " << i);
        start();
        stack.readers = {"A"};
        stack.cards["A"] = cases[i].card;
        stack.failures = cases[i].failures;
        Lines expected = {"connect A"};
        expected.insert(expected.end(), cases[i].expected.begin(), cases[i].expected.end());
        expected.push_back("disconnect A");
        EXPECT_EQ(run(), expected);
        EXPECT_TRUE(cases[i].log.isEmpty() || logged({cases[i].log}));
        const Lines& calls = stack.journal;
        const bool released = std::count(calls.begin(), calls.end(), "End 0") == 1 &&
                              std::count(calls.begin(), calls.end(), "Disconnect 1") == 1;
        EXPECT_EQ(released, !cases[i].failures.count("Connect"));
    }
}

TEST_F(CardReading, CardPulledMidReadReportsEveryFailureAndDoesNotHoldUpTheNextCard)
{
    stack.readers = {"A", "B"};
    stack.cards["A"] = answering(acosCard({1}), readMcuIdRecord, {SCARD_W_REMOVED_CARD, {}});
    stack.cards["B"] = tag({0x42});
    stack.failures["End"] = SCARD_W_REMOVED_CARD;
    stack.failures["Disconnect"] = SCARD_W_REMOVED_CARD;

    EXPECT_EQ(run(), (Lines{"connect A", "connect B", removedCard, removedCard, removedCard, "rfid 42", removedCard,
                            removedCard, "disconnect A", "disconnect B"}));
    EXPECT_TRUE(logged({"Failed to read MCU ID from card."}));
}

} // namespace
