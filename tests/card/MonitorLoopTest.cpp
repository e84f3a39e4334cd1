#include "FakeStackFixture.h"

#include <algorithm>

namespace {

using namespace FakePcsc;

using MonitorLoop = FakeStackTest;

const std::vector<DWORD> twoUnaware = {SCARD_STATE_UNAWARE, SCARD_STATE_UNAWARE};

ptrdiff_t journalIndex(const std::string& entry, size_t occurrence = 1)
{
    const std::vector<std::string> journal = FakePcsc::journal();
    size_t seen = 0;
    for (size_t i = 0; i < journal.size(); ++i) {
        if (journal[i] == entry && ++seen == occurrence)
            return static_cast<ptrdiff_t>(i);
    }
    return -1;
}

TEST_F(MonitorLoop, AnnouncesReadersInListingOrderAndKeepsTheLastListing)
{
    setReaders({"Reader B", "Reader A"});
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect Reader B", "connect Reader A", cancelled()}));
    // The listing outlives the loop: clients that connect later still get it.
    EXPECT_EQ(controller->GetReaders(), QVector<QString>({"Reader B", "Reader A"}));

    const std::vector<Wait> calls = waits();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0].readers, (std::vector<std::string>{"Reader B", "Reader A"}));
    EXPECT_EQ(calls[0].currentStates, twoUnaware);
    EXPECT_TRUE(LogCapture::instance().hasLine({"Reader connected:", "Reader B"}));
    EXPECT_TRUE(LogCapture::instance().hasLine(
        {"SCardGetStatusChange returned:", "-2146435070", "The action was canceled by an SCardCancel request."}));
}

TEST_F(MonitorLoop, RefreshReportsNewReadersBeforeLostOnesAndIgnoresReordering)
{
    setReaders({"A", "B"});
    addWaitStep(then([] {
        setReaders({"C", "A", "D"});
        advanceClock(16);
    }));
    addWaitStep(then([] {
        setReaders({"D", "C", "A"});
        advanceClock(16);
    }));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", "connect B", "connect C", "connect D", "disconnect B", cancelled()}));
    EXPECT_EQ(controller->GetReaders(), QVector<QString>({"D", "C", "A"}));
    EXPECT_TRUE(LogCapture::instance().hasLine({"Reader disconnected:", "B"}));

    // Each refresh rebuilds the records from the new listing, all unaware again.
    const std::vector<Wait> calls = waits();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(calls[2].readers, (std::vector<std::string>{"D", "C", "A"}));
    EXPECT_EQ(calls[2].currentStates, (std::vector<DWORD>{SCARD_STATE_UNAWARE, SCARD_STATE_UNAWARE, SCARD_STATE_UNAWARE}));
}

TEST_F(MonitorLoop, RefreshesOnlyOnceMoreThanFifteenSecondsHavePassed)
{
    setReaders({"A"});
    addWaitStep(then([] {
        setReaders({"A", "B"});
        advanceClock(15);
    }));
    addWaitStep(then([] {
        note("sixteen seconds");
        advanceClock(1);
    }));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", "connect B", cancelled()}));
    EXPECT_LT(journalIndex("sixteen seconds"), journalIndex("ListReaders", 2));
}

TEST_F(MonitorLoop, ArrivalInTheWaitDroppedByARefreshIsReadAfterItButRemovalIsLost)
{
    setReaders({"A"});
    addWaitSteps(1);
    addWaitStep(then([] {
        layCard("A", tag({0x04, 0xA1, 0x0B, 0x7F}));
        advanceClock(16);
    }));
    addWaitSteps(1);
    addWaitStep(then([] {
        removeCard("A");
        advanceClock(16);
    }));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", "rfid 04a10b7f", cancelled()}));
    EXPECT_LT(journalIndex("ListReaders", 2), journalIndex("Connect A"));
}

TEST_F(MonitorLoop, CardLeftOnAReaderIsReadAgainAfterEachRefreshAndItsRemovalReportedOnce)
{
    setReaders({"A", "B"});
    layCard("A", tag({0x04, 0xA1, 0x0B, 0x7F}));
    addWaitSteps(2);
    addWaitStep(then([] { advanceClock(16); }));
    addWaitSteps(1);
    addWaitStep(then([] { removeCard("A"); }));
    addWaitSteps(1);
    addWaitStep(then([] { layCard("B", tag({0x01})); }));

    EXPECT_EQ(run(), QStringList({"connect A", "connect B", "rfid 04a10b7f", "rfid 04a10b7f", "removed", "rfid 01",
                                  cancelled()}));
}

TEST_F(MonitorLoop, OnlyRecordsMarkedChangedAreLookedAt)
{
    setReaders({"A"});
    layCard("A", tag({0x01}));
    overrideNextEventState("A", SCARD_STATE_PRESENT);
    addWaitSteps(1);
    addWaitStep(then([] { note("second wait"); }));

    EXPECT_EQ(run(), QStringList({"connect A", "rfid 01", cancelled()}));
    EXPECT_LT(journalIndex("second wait"), journalIndex("Connect A"));
}

TEST_F(MonitorLoop, WithoutReadersWaitsOnAnEmptyArrayAndFindsTheFirstReaderAtTheNextRefresh)
{
    setReaders({});
    addWaitStep(then([] { setReaders({"A"}); }));
    addWaitStep(then([] { advanceClock(16); }));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", cancelled()}));
    const std::vector<Wait> calls = waits();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(calls[0].count, 0u);
    EXPECT_TRUE(calls[0].arrayGiven);
    EXPECT_EQ(calls[1].count, 0u);
    EXPECT_EQ(calls[2].count, 1u);
}

TEST_F(MonitorLoop, AFailedWaitEndsTheLoopWithItsCodeAndText)
{
    setReaders({"A"});
    layCard("A", tag({0x01}));
    addWaitStep([] { return std::optional<LONG>(SCARD_E_NO_SERVICE); });
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", "error 8010001d The smart card resource manager is not running."}));
    EXPECT_EQ(waits().size(), 1u);
    EXPECT_TRUE(LogCapture::instance().hasLine(
        {"SCardGetStatusChange returned:", "-2146435043", "The smart card resource manager is not running."}));
    EXPECT_TRUE(LogCapture::instance().contains("SmartCardController::process terminating."));
}

TEST_F(MonitorLoop, AWaitFailureWithoutTextIsReportedAsUndocumented)
{
    setReaders({"A"});
    addWaitStep([] { return std::optional<LONG>(SCARD_E_NO_READERS_AVAILABLE); });

    EXPECT_EQ(run(), QStringList({"connect A", "error 8010002e Error is not documented."}));
}

TEST_F(MonitorLoop, AFailedListingCountsAsNoReaders)
{
    setReaders({"A", "B"});
    addWaitStep(then([] {
        failCall(Call::ListNames, SCARD_F_COMM_ERROR);
        advanceClock(16);
    }));
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({"connect A", "connect B", "disconnect A", "disconnect B", cancelled()}));
    EXPECT_TRUE(controller->GetReaders().isEmpty());
}

TEST_F(MonitorLoop, AFailedSizingCallCountsAsNoReaders)
{
    setReaders({"A"});
    failCall(Call::ListSize, SCARD_E_NO_SERVICE);
    addWaitSteps(1);

    EXPECT_EQ(run(), QStringList({cancelled()}));
}

} // namespace
