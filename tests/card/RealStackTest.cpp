#include "CardEventLog.h"
#include "LogCapture.h"
#include "PrivatePcscd.h"
#include "SmartCardController.h"
#include "VirtualCard.h"

#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <memory>

namespace {

using VirtualCards::Bytes;
using VirtualCards::CardPersonality;
using VirtualCards::VirtualCard;

// pcscd looks at its virtual readers every 400 ms, and later under load.
const std::chrono::seconds eventTimeout(30);

const Bytes readUid = {0xFF, 0xCA, 0x00, 0x00, 0x00};

class RealStack : public ::testing::Test
{
protected:
    void SetUp() override
    {
        pcscd.setDebugOutput(qEnvironmentVariableIsSet("TIV_TEST_PCSCD_DEBUG"));
        ASSERT_TRUE(pcscd.start()) << pcscd.lastError().toStdString();
        // Read by the client library at its first call; the same path for the whole process.
        qputenv("PCSCLITE_CSOCK_NAME", QFile::encodeName(pcscd.socketPath()));
        LogCapture::instance().clear();
    }

    void TearDown() override
    {
        if (HasFailure()) {
            std::cerr << "Card events:\n" << (events ? events->summary().join('\n').toStdString() : "") << "\nLog:\n"
                      << LogCapture::instance().lines().join('\n').toStdString() << "\npcscd:\n"
                      << pcscd.output().toStdString() << std::endl;
        }
        endLoop();
        pcscd.stop();
    }

    // Runs a controller as the service does, initialised here and then moved to a thread
    // of its own running the loop; the thread ends with the loop. The flag hands what
    // the loop wrote over to this thread in a way ThreadSanitizer can see.
    void startLoop()
    {
        controller = new SmartCardController;
        events = std::make_unique<CardEventLog>(controller);
        ASSERT_TRUE(controller->Initialize());
        loopReturned.store(false);
        SmartCardController* loopController = controller;
        thread = QThread::create([this, loopController] {
            loopController->process();
            loopReturned.store(true, std::memory_order_release);
        });
        controller->moveToThread(thread);
        thread->start();
    }

    bool loopEnded()
    {
        return thread->wait(static_cast<unsigned long>(std::chrono::milliseconds(eventTimeout).count())) &&
               loopReturned.load(std::memory_order_acquire);
    }

    void endLoop()
    {
        if (!controller)
            return;
        controller->stop();
        thread->wait();
        loopReturned.load(std::memory_order_acquire);
        delete controller;
        delete thread;
        controller = nullptr;
        thread = nullptr;
    }

    // Waits for the reset that ends the read (the second power-up after the power-on)
    // and then for two of pcscd's presence checks, 400 ms apart: by then the loop is
    // parked in its wait for card events.
    static bool loopIsWaitingAfterReading(const VirtualCard& card)
    {
        if (!card.waitForPowerUps(2, eventTimeout))
            return false;
        return card.waitForPresenceChecks(card.presenceCheckCount() + 2, eventTimeout);
    }

    bool waitForRfid(const QString& id)
    {
        return events->waitFor(
            [&](const std::vector<CardEventLog::Event>& recorded) {
                for (const CardEventLog::Event& event : recorded) {
                    if (event.kind == QLatin1String("rfid") && event.text == id)
                        return true;
                }
                return false;
            },
            eventTimeout);
    }

    void expectErrorTextsMatchCodes()
    {
        for (const CardEventLog::Event& error : events->eventsOf(QStringLiteral("error")))
            EXPECT_EQ(error.text, controller->getErrorMessage(static_cast<int>(error.code))) << error.code;
    }

    TestSupport::PrivatePcscd pcscd;
    SmartCardController* controller = nullptr;
    QThread* thread = nullptr;
    std::atomic<bool> loopReturned{false};
    std::unique_ptr<CardEventLog> events;
};

TEST_F(RealStack, AnnouncesBothReadersInListingOrderAndReadsACardAlreadyLyingThere)
{
    VirtualCard card(CardPersonality::rfidTag({0x04, 0xA1, 0x0B, 0x7F}));
    ASSERT_TRUE(card.layOn(pcscd.vpcdPort(1))) << card.lastError();
    ASSERT_TRUE(card.waitForPowerOn(eventTimeout));

    startLoop();
    ASSERT_TRUE(waitForRfid(QStringLiteral("04a10b7f"))) << events->summary().join('\n').toStdString();

    const QStringList summary = events->summary();
    ASSERT_GE(summary.size(), 3);
    EXPECT_EQ(summary.mid(0, 3), QStringList({"connect " + pcscd.readerName(0), "connect " + pcscd.readerName(1),
                                              "rfid 04a10b7f"}));
    EXPECT_EQ(controller->GetReaders(), QVector<QString>({pcscd.readerName(0), pcscd.readerName(1)}));
    EXPECT_EQ(card.receivedApdus(), std::vector<Bytes>{readUid});
}

TEST_F(RealStack, ReadsATagAndReportsItsRemoval)
{
    startLoop();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("connect"), 2, eventTimeout));

    VirtualCard card(CardPersonality::rfidTag({0x04, 0xA1, 0x0B, 0x7F}));
    ASSERT_TRUE(card.layOn(pcscd.vpcdPort(0))) << card.lastError();
    ASSERT_TRUE(waitForRfid(QStringLiteral("04a10b7f")));

    card.takeAway();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("removed"), 1, eventTimeout));
    EXPECT_EQ(events->eventsOf(QStringLiteral("error")).size(), 0u) << events->summary().join('\n').toStdString();
    EXPECT_EQ(events->count(QStringLiteral("unexpected")), 0);
}

TEST_F(RealStack, ReadsAnAcosCardsMcuIdAndThenSelectsItsBaseFile)
{
    startLoop();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("connect"), 2, eventTimeout));

    VirtualCard card(CardPersonality::acosCard({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
    ASSERT_TRUE(card.layOn(pcscd.vpcdPort(1))) << card.lastError();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("sc"), 1, eventTimeout)) << events->summary().join('\n').toStdString();
    EXPECT_EQ(events->eventsOf(QStringLiteral("sc"))[0].text, QStringLiteral("0102030405060708"));

    ASSERT_TRUE(card.waitForApdus(3, eventTimeout));
    EXPECT_EQ(card.receivedApdus(), (std::vector<Bytes>{{0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00},
                                                        {0x80, 0xB2, 0x00, 0x00, 0x08},
                                                        {0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x01}}));
    EXPECT_EQ(events->count(QStringLiteral("rfid")), 0);
}

TEST_F(RealStack, FaultyCardsReportErrorsAndNoIdentifier)
{
    startLoop();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("connect"), 2, eventTimeout));

    // Torn off the reader while answering its second command.
    VirtualCard pulled(CardPersonality::acosCard({1, 2, 3, 4, 5, 6, 7, 8}));
    pulled.setDropAtApdu(2);
    // Nine UID bytes do not fit the reply buffer.
    VirtualCard longUid(CardPersonality::rfidTag({1, 2, 3, 4, 5, 6, 7, 8, 9}));
    ASSERT_TRUE(pulled.layOn(pcscd.vpcdPort(0))) << pulled.lastError();
    ASSERT_TRUE(longUid.layOn(pcscd.vpcdPort(1))) << longUid.lastError();

    ASSERT_TRUE(pulled.waitUntilOffReader(eventTimeout));
    ASSERT_TRUE(events->waitFor(
        [](const std::vector<CardEventLog::Event>& recorded) {
            return std::any_of(recorded.begin(), recorded.end(),
                               [](const CardEventLog::Event& e) { return e.code == 0x80100008; });
        },
        eventTimeout))
        << events->summary().join('\n').toStdString();
    // Power-on, then the reset of the disconnect: the read is over, the card can go.
    ASSERT_TRUE(longUid.waitForPowerUps(2, eventTimeout));
    longUid.takeAway();
    // Both readers empty again, so both reads are over.
    ASSERT_TRUE(events->waitForCount(QStringLiteral("removed"), 2, eventTimeout))
        << events->summary().join('\n').toStdString();

    // A sound card afterwards proves the loop went on. It goes on the reader whose card
    // was taken away after the read: when a card vanishes mid-command, pcscd may miss a
    // new card laid on that reader before its next presence check.
    VirtualCard sound(CardPersonality::rfidTag({0xCA, 0xFE, 0x00, 0x01}));
    ASSERT_TRUE(sound.layOn(pcscd.vpcdPort(1))) << sound.lastError();
    ASSERT_TRUE(waitForRfid(QStringLiteral("cafe0001"))) << events->summary().join('\n').toStdString();

    EXPECT_EQ(events->count(QStringLiteral("sc")), 0);
    EXPECT_EQ(events->count(QStringLiteral("rfid")), 1) << events->summary().join('\n').toStdString();
    const std::vector<CardEventLog::Event> errors = events->eventsOf(QStringLiteral("error"));
    EXPECT_GE(errors.size(), 2u) << events->summary().join('\n').toStdString();
    EXPECT_TRUE(LogCapture::instance().contains(QStringLiteral("Failed to read MCU ID from card.")));
    expectErrorTextsMatchCodes();
}

TEST_F(RealStack, StopDuringAWaitReportsTheCancelAndEndsTheLoop)
{
    VirtualCard card(CardPersonality::rfidTag({0x01}));
    ASSERT_TRUE(card.layOn(pcscd.vpcdPort(0))) << card.lastError();
    startLoop();
    ASSERT_TRUE(waitForRfid(QStringLiteral("01")));
    ASSERT_TRUE(loopIsWaitingAfterReading(card));

    controller->stop();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("error"), 1, eventTimeout));
    const CardEventLog::Event error = events->eventsOf(QStringLiteral("error"))[0];
    EXPECT_EQ(error.code, 0x80100002u);
    EXPECT_EQ(error.text, QStringLiteral("The action was canceled by an SCardCancel request."));
    EXPECT_TRUE(loopEnded());
    // Stopping reports no departures: the last listing stays published.
    EXPECT_EQ(controller->GetReaders().size(), 2);
    EXPECT_EQ(events->count(QStringLiteral("disconnect")), 0);
}

TEST_F(RealStack, DeadPcscdEndsTheLoopAndANewContextWaitsForItsReturn)
{
    VirtualCard card(CardPersonality::rfidTag({0x02}));
    ASSERT_TRUE(card.layOn(pcscd.vpcdPort(1))) << card.lastError();
    startLoop();
    ASSERT_TRUE(waitForRfid(QStringLiteral("02")));
    ASSERT_TRUE(loopIsWaitingAfterReading(card));

    pcscd.kill();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("error"), 1, eventTimeout));
    const CardEventLog::Event error = events->eventsOf(QStringLiteral("error"))[0];
    EXPECT_EQ(error.code, 0x80100013u);
    EXPECT_EQ(error.text, QStringLiteral("An internal communications error has been detected."));
    EXPECT_TRUE(loopEnded());
    endLoop();

    {
        SmartCardController whileDown;
        EXPECT_FALSE(whileDown.Initialize());
    }
    EXPECT_TRUE(LogCapture::instance().hasLine({"Could not get PCSC context:", "-2146435043"}));

    ASSERT_TRUE(pcscd.restart()) << pcscd.lastError().toStdString();
    startLoop();
    ASSERT_TRUE(events->waitForCount(QStringLiteral("connect"), 2, eventTimeout));
    EXPECT_EQ(controller->GetReaders(), QVector<QString>({pcscd.readerName(0), pcscd.readerName(1)}));
}

} // namespace
