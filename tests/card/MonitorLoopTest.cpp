#include "FakeStackFixture.h"

namespace {

using namespace FakePcsc;

using MonitorLoop = FakeStack;

// Past the refresh interval: the current wait's records are dropped and the readers listed again.
void passRefreshInterval()
{
    stack.clockSeconds += 16;
}

TEST_F(MonitorLoop, ReportsNewReadersBeforeLostOnesInListingOrderAndIgnoresReordering)
{
    stack.readers = {"B", "A"};
    stack.script.push_back([] {
        stack.readers = {"C", "A", "D"};
        stack.cards["D"] = tag({0x0D});
        passRefreshInterval();
    });
    stack.script.push_back([] { stack.readers = {"D", "C", "A"}; passRefreshInterval(); });
    stack.addWaitSteps(1);

    // The card on a new reader shows that its record is watched.
    EXPECT_EQ(run(), (Lines{"connect B", "connect A", "connect C", "connect D", "disconnect B", "rfid 0d", cancelled}));
    // The listing outlives the loop: clients that connect later still get it.
    EXPECT_EQ(controller->GetReaders(), QVector<QString>({"D", "C", "A"}));
    EXPECT_TRUE(logged({"Reader connected:", "\"C\""}));
    EXPECT_TRUE(logged({"Reader disconnected:", "\"B\""}));
}

TEST_F(MonitorLoop, RefreshesOnlyOnceMoreThanFifteenSecondsHavePassed)
{
    stack.readers = {"A"};
    stack.script.push_back([] { stack.readers = {"A", "B"}; stack.clockSeconds += 15; });
    stack.script.push_back([] { stack.journal.push_back("16 s"); stack.clockSeconds += 1; });
    stack.addWaitSteps(1);

    EXPECT_EQ(run(), (Lines{"connect A", "16 s", "connect B", cancelled}));
}

TEST_F(MonitorLoop, ReadsACardOnceWhileItLiesThereAgainAfterARefreshAndLosesWhatARefreshDrops)
{
    stack.readers = {"A", "B"};
    stack.cards["A"] = tag({0x0A});
    stack.addWaitSteps(2);                                                                // read once
    stack.script.push_back(passRefreshInterval);
    stack.addWaitSteps(1);                                                                // read again
    stack.script.push_back([] { stack.cards.erase("A"); });                               // removed
    stack.script.push_back([] { stack.cards["B"] = tag({0x0B}); passRefreshInterval(); }); // dropped...
    stack.addWaitSteps(1);                                                                // ...read now
    stack.script.push_back([] { stack.cards.erase("B"); passRefreshInterval(); });        // dropped, lost
    stack.addWaitSteps(2);

    EXPECT_EQ(run(), (Lines{"connect A", "connect B", "rfid 0a", "rfid 0a", "removed", "rfid 0b", cancelled}));
}

TEST_F(MonitorLoop, LooksOnlyAtRecordsMarkedChanged)
{
    stack.readers = {"A"};
    stack.cards["A"] = tag({0x01});
    stack.eventOverrides["A"] = SCARD_STATE_PRESENT;
    stack.addWaitSteps(1);
    stack.script.push_back([] { stack.journal.push_back("second wait"); });

    EXPECT_EQ(run(), (Lines{"connect A", "second wait", "rfid 01", cancelled}));
}

TEST_F(MonitorLoop, ReaderListThatCannotBeHadCountsAsNoReaders)
{
    // The sizing call failing, the listing failing, and no reader at all.
    for (const std::string failing : {"ListReaders", "ListNames", ""}) {
        SCOPED_TRACE(failing);
        start();
        stack.readers = {"A"};
        stack.script.push_back([failing] {
            stack.failures[failing] = SCARD_F_COMM_ERROR;
            stack.readers = failing.empty() ? std::vector<std::string>() : stack.readers;
            passRefreshInterval();
        });
        stack.script.push_back([this, failing] {
            stack.journal.push_back("published " + std::to_string(controller->GetReaders().size()));
            stack.failures.erase(failing);
            stack.readers = {"A"};
            passRefreshInterval();
        });
        stack.addWaitSteps(1);

        EXPECT_EQ(run(), (Lines{"connect A", "disconnect A", "published 0", "connect A", cancelled}));
    }
}

TEST_F(MonitorLoop, AFailedWaitEndsTheLoopWithItsCodeAndText)
{
    stack.readers = {"A"};
    stack.failures["GetStatusChange"] = SCARD_E_NO_SERVICE;
    stack.addWaitSteps(2);

    EXPECT_EQ(run(), (Lines{"connect A", "error 8010001d The smart card resource manager is not running."}));
    // Logs show the 32-bit code signed.
    EXPECT_TRUE(logged({"SCardGetStatusChange returned:", "-2146435043", "resource manager is not running."}));
    EXPECT_TRUE(logged({"SmartCardController::process terminating."}));
}

TEST_F(MonitorLoop, EndsAtOnceAfterAStopOrWithoutAContext)
{
    stack.readers = {"A"};
    stack.addWaitSteps(1);
    // A failing cancel or release is only logged: the stop holds all the same.
    stack.failures = {{"Cancel", SCARD_E_INVALID_HANDLE}, {"Release", SCARD_E_INVALID_HANDLE}};
    controller->stop();
    EXPECT_EQ(run(), Lines{});
    controller.reset();
    EXPECT_EQ(stack.journal.back(), "Release");

    start(SCARD_E_NO_SERVICE);
    stack.readers = {"A"};
    stack.addWaitSteps(1);
    EXPECT_EQ(run(), Lines{});
    EXPECT_TRUE(logged({"Could not get PCSC context:", "-2146435043", "resource manager is not running."}));
}

} // namespace
