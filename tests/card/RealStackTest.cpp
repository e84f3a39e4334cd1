#include "CardEventLog.h"
#include "LogCapture.h"
#include "PrivatePcscd.h"
#include "VirtualCard.h"

#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <memory>

namespace {

using VirtualCards::Bytes;
using VirtualCards::CardPersonality;
using VirtualCards::VirtualCard;

const std::chrono::seconds eventTimeout(30);

// The controller as the service runs it, on a thread of its own, against a private pcscd with
// two virtual readers.
class RealStack : public ::testing::Test
{
protected:
    void SetUp() override
    {
        LogCapture::instance().clear();
        pcscd.setDebugOutput(qEnvironmentVariableIsSet("TIV_TEST_PCSCD_DEBUG"));
        ASSERT_TRUE(pcscd.start()) << pcscd.lastError().toStdString();
        // Read by the client library at its first call; the same path for the whole process.
        qputenv("PCSCLITE_CSOCK_NAME", QFile::encodeName(pcscd.socketPath()));
    }

    void TearDown() override
    {
        if (HasFailure())
            std::cerr << "Card events:\n" << (events ? events->lines().join('\n').toStdString() : "") << "\nLog:\n"
                      << LogCapture::instance().lines().join('\n').toStdString() << "\npcscd:\n"
                      << pcscd.output().toStdString() << std::endl;
        if (controller)
            controller->stop();
        EXPECT_TRUE(!thread || loopEnded());
        delete controller;
        delete thread;
        pcscd.stop();
    }

    void startLoop()
    {
        controller = new SmartCardController;
        events = std::make_unique<CardEventLog>(controller);
        ASSERT_TRUE(controller->Initialize());
        thread = QThread::create([this] {
            controller->process();
            loopReturned.store(true, std::memory_order_release);
        });
        controller->moveToThread(thread);
        thread->start();
    }

    // The flag hands what the loop wrote over to this thread in a way ThreadSanitizer can see.
    bool loopEnded()
    {
        return thread->wait(30000) && loopReturned.load(std::memory_order_acquire);
    }

    // The reset that ends the read (the second power-up), then two of pcscd's presence checks,
    // 400 ms apart: by then the loop is parked in its wait for card events.
    static bool loopIsWaitingAfterReading(const VirtualCard& card)
    {
        return card.waitForPowerUps(2, eventTimeout) &&
               card.waitForPresenceChecks(card.presenceCheckCount() + 2, eventTimeout);
    }

    TestSupport::PrivatePcscd pcscd;
    SmartCardController* controller = nullptr;
    QThread* thread = nullptr;
    std::atomic<bool> loopReturned{false};
    std::unique_ptr<CardEventLog> events;
};

TEST_F(RealStack, ReadsATagAndAnAcosCardReportsRemovalAndEndsOnStop)
{
    VirtualCard tag(CardPersonality::rfidTag({0x04, 0xA1, 0x0B, 0x7F}));
    ASSERT_TRUE(tag.layOn(pcscd.vpcdPort(1))) << tag.lastError();
    ASSERT_TRUE(tag.waitForPowerOn(eventTimeout));
    startLoop();
    ASSERT_TRUE(events->waitFor("rfid "));
    // Both readers in listing order first, then the card that was already lying there.
    const QStringList readers = {"connect " + pcscd.readerName(0), "connect " + pcscd.readerName(1)};
    EXPECT_EQ(events->lines(), readers + QStringList("rfid 04a10b7f"));
    EXPECT_EQ(tag.receivedApdus(), std::vector<Bytes>({{0xFF, 0xCA, 0x00, 0x00, 0x00}}));
    tag.takeAway();
    ASSERT_TRUE(events->waitFor("removed"));

    VirtualCard acos(CardPersonality::acosCard({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
    ASSERT_TRUE(acos.layOn(pcscd.vpcdPort(0))) << acos.lastError();
    ASSERT_TRUE(events->waitFor("sc "));
    EXPECT_EQ(events->linesStartingWith("sc "), QStringList("sc 0102030405060708"));
    ASSERT_TRUE(acos.waitForApdus(3, eventTimeout));
    EXPECT_EQ(acos.receivedApdus(), (std::vector<Bytes>{{0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00},
                                                        {0x80, 0xB2, 0x00, 0x00, 0x08},
                                                        {0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x01}}));

    ASSERT_TRUE(loopIsWaitingAfterReading(acos));
    controller->stop();
    EXPECT_TRUE(loopEnded());
    // Card handling is over, so its readers are reported gone; a stop is no failure.
    EXPECT_EQ(events->linesStartingWith("disconnect "),
              QStringList({"disconnect " + pcscd.readerName(0), "disconnect " + pcscd.readerName(1)}));
    EXPECT_TRUE(controller->GetReaders().isEmpty());
    EXPECT_EQ(events->linesStartingWith("error ") + events->linesStartingWith("service lost") +
                  events->linesStartingWith("unexpected"),
              QStringList());
}

TEST_F(RealStack, CardPulledMidReadYieldsAnErrorAndALostPcscdEndsTheLoopWithItsReadersGone)
{
    startLoop();
    ASSERT_TRUE(events->waitFor("connect ", 2));
    // Torn off the reader while answering its second command, the MCU ID read.
    VirtualCard pulled(CardPersonality::acosCard({1, 2, 3, 4, 5, 6, 7, 8}));
    pulled.setDropAtApdu(2);
    ASSERT_TRUE(pulled.layOn(pcscd.vpcdPort(0))) << pulled.lastError();
    ASSERT_TRUE(pulled.waitUntilOffReader(eventTimeout));
    ASSERT_TRUE(events->waitFor("error "));

    // A sound card afterwards shows the loop went on. It goes on the other reader: pcscd may
    // miss a new card on the reader whose card vanished mid-command until its next check.
    VirtualCard sound(CardPersonality::rfidTag({0xCA, 0xFE}));
    ASSERT_TRUE(sound.layOn(pcscd.vpcdPort(1))) << sound.lastError();
    ASSERT_TRUE(events->waitFor("rfid "));
    EXPECT_EQ(events->linesStartingWith("rfid ") + events->linesStartingWith("sc "), QStringList("rfid cafe"));
    EXPECT_TRUE(LogCapture::instance().contains("Failed to read MCU ID from card."));

    ASSERT_TRUE(loopIsWaitingAfterReading(sound));
    const int errorsBefore = events->linesStartingWith("error ").size();
    pcscd.kill();
    ASSERT_TRUE(events->waitFor("service lost"));
    EXPECT_TRUE(loopEnded());
    const QStringList lines = events->lines();
    EXPECT_EQ(lines.mid(lines.size() - 3),
              QStringList({"disconnect " + pcscd.readerName(0), "disconnect " + pcscd.readerName(1), "service lost"}));
    EXPECT_EQ(events->linesStartingWith("error ").size(), errorsBefore) << "a loss is no card error";
    EXPECT_EQ(LogCapture::instance().count("PC/SC service lost:"), 1);
}

} // namespace
