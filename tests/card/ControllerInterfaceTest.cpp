#include "FakePcsc.h"
#include "LogCapture.h"
#include "SmartCardController.h"

#include <QMetaMethod>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

bool journalHas(const std::string& entry)
{
    const std::vector<std::string> journal = FakePcsc::journal();
    return std::find(journal.begin(), journal.end(), entry) != journal.end();
}

// Receivers that connect by signature and by index rely on this exact table.
TEST(SmartCardControllerInterface, DeclaresItsSignalsAndSlotInMetaObjectOrder)
{
    const QMetaObject& meta = SmartCardController::staticMetaObject;
    const QStringList expected = {"onError(uint,QString)",
                                  "onRFID(QString)",
                                  "onSC(QString)",
                                  "onReaderConnect(QString)",
                                  "onReaderDisconnect(QString)",
                                  "cardInserted()",
                                  "cardRemoved()",
                                  "cardInvalid()",
                                  "cardDataRead()",
                                  "cardEmptyName()",
                                  "cardWritingInProgress()",
                                  "cardWritingDone()",
                                  "process()"};
    ASSERT_EQ(meta.methodCount() - meta.methodOffset(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        EXPECT_EQ(QString::fromLatin1(method.methodSignature()), expected[i]);
        EXPECT_EQ(method.methodType(), i < 12 ? QMetaMethod::Signal : QMetaMethod::Slot) << i;
    }
}

TEST(SmartCardControllerInterface, ReaderStateLooksUpTheFirstRecordOfThatName)
{
    SmartCardController controller;
    SCARD_READERSTATE states[3] = {};
    states[0].szReader = "A";
    states[0].dwCurrentState = SCARD_STATE_EMPTY;
    states[1].szReader = "B";
    states[1].dwCurrentState = SCARD_STATE_PRESENT;
    states[1].dwEventState = SCARD_STATE_EMPTY;
    states[2].szReader = "B";
    states[2].dwCurrentState = SCARD_STATE_MUTE;

    EXPECT_EQ(controller.getReaderState("B", states, 3), DWORD(SCARD_STATE_PRESENT));
    EXPECT_EQ(controller.getReaderState("A", states, 3), DWORD(SCARD_STATE_EMPTY));
    EXPECT_EQ(controller.getReaderState("C", states, 3), 0u);
    EXPECT_EQ(controller.getReaderState("B", states, 0), 0u);
    EXPECT_EQ(controller.getReaderState("B", nullptr, 3), DWORD(SCARD_STATE_UNKNOWN));
}

class ControllerLifecycle : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FakePcsc::reset();
        LogCapture::instance().clear();
    }
};

TEST_F(ControllerLifecycle, WithoutPcscInitializeFailsAndTheLoopEndsAtOnce)
{
    FakePcsc::failCall(FakePcsc::Call::Establish, SCARD_E_NO_SERVICE);
    {
        SmartCardController controller;
        int errorSignals = 0;
        QObject::connect(&controller, &SmartCardController::onError, [&] { ++errorSignals; });

        EXPECT_FALSE(controller.Initialize());
        EXPECT_TRUE(LogCapture::instance().hasLine({"Could not get PCSC context:", "-2146435043",
                                                    "The smart card resource manager is not running."}));

        controller.process();
        EXPECT_TRUE(FakePcsc::waits().empty());
        EXPECT_EQ(errorSignals, 0);
        EXPECT_TRUE(LogCapture::instance().contains("SmartCardController::process terminating."));
    }
    // The context is released on destruction even though none was established.
    EXPECT_TRUE(journalHas("Release"));
}

TEST_F(ControllerLifecycle, StopBeforeTheLoopStartsMakesItEndAtOnce)
{
    SmartCardController controller;
    ASSERT_TRUE(controller.Initialize());
    controller.stop();
    EXPECT_TRUE(journalHas("Cancel"));

    controller.process();
    EXPECT_TRUE(FakePcsc::waits().empty());
    EXPECT_TRUE(controller.GetReaders().isEmpty());
}

TEST_F(ControllerLifecycle, FailedCancelAndReleaseAreOnlyLogged)
{
    FakePcsc::failCall(FakePcsc::Call::Cancel, SCARD_E_INVALID_HANDLE);
    FakePcsc::failCall(FakePcsc::Call::Release, SCARD_E_INVALID_HANDLE);
    {
        SmartCardController controller;
        ASSERT_TRUE(controller.Initialize());
        controller.stop();
    }
    EXPECT_TRUE(LogCapture::instance().hasLine({"~RFID() -> SCardCancel =", "-2146435069"}));
    EXPECT_TRUE(LogCapture::instance().hasLine({"~RFID() -> SCardReleaseContext =", "-2146435069"}));
}

} // namespace
