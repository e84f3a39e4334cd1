#include "FakeStackFixture.h"

#include "PcscService.h"
#include "ReaderCommand.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

using namespace FakePcsc;

using CardLoop = FakeStack;

TEST_F(CardLoop, WithNoReaderTheWaitBlocksAndAReaderThatAppearsIsReadAtOnce)
{
    stack.addWaitSteps(3);
    stack.script.push_back([] {
        stack.readers = {"A"};
        // A UID of ten bytes, the longest there is.
        stack.cards["A"] = tag({0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99});
    });

    EXPECT_EQ(run(), (Lines{"connect A", "rfid A 04112233445566778899", "disconnect A"}));
    EXPECT_EQ(calls("Wait"), (Lines{"Wait 0 1", "Wait 15000 1", "Wait 15000 1", "Wait 15000 1", "Wait 15000 1",
                                    "Wait 15000 2", "Wait 15000 2"}));
    EXPECT_EQ(stack.clockMs, 3 * SmartCardController::refreshInterval.count());
}

TEST_F(CardLoop, AReaderUnpluggedDuringAWaitCostsTheOthersNothing)
{
    // Reported as an unknown reader's state, or as a failed wait.
    for (const LONG failure : {SCARD_S_SUCCESS, SCARD_E_UNKNOWN_READER, SCARD_E_READER_UNAVAILABLE}) {
        SCOPED_TRACE(failure);
        start();
        stack.readers = {"A", "B"};
        stack.script.push_back([failure] {
            stack.readers = {"B"};
            if (failure != SCARD_S_SUCCESS)
                stack.failOnce["Wait"] = failure;
        });
        stack.script.push_back([] { stack.cards["B"] = tag({0x0B}); });

        Lines expected = {"connect A", "connect B"};
        if (failure != SCARD_S_SUCCESS)
            expected.push_back(errorLine(failure));
        expected.insert(expected.end(), {"disconnect A", "rfid B 0b", "disconnect B"});
        EXPECT_EQ(run(), expected);
        EXPECT_EQ(calls("Pause"), Lines{}) << "a single failure is retried at once";
    }
}

TEST_F(CardLoop, LossOfTheServiceEndsTheLoopWithEveryReaderGone)
{
    const struct
    {
        const char* call;
        LONG result;
    } losses[] = {{"Wait", SCARD_F_COMM_ERROR},        {"Wait", SCARD_E_NO_SERVICE},
                  {"Wait", SCARD_E_SERVICE_STOPPED},   {"Wait", SCARD_E_INVALID_HANDLE},
                  {"ListNames", SCARD_E_NO_SERVICE},   {"ListReaders", SCARD_F_COMM_ERROR}};
    for (const auto& loss : losses) {
        SCOPED_TRACE(loss.call);
        SCOPED_TRACE(loss.result);
        start();
        stack.readers = {"A", "B"};
        // Listing failures show once a change makes the loop list the readers again.
        stack.script.push_back([&] {
            stack.failures[loss.call] = loss.result;
            stack.cards["A"] = tag({0x0A});
        });

        const bool listing = std::string(loss.call) != "Wait";
        Lines expected = {"connect A", "connect B"};
        if (listing)
            expected.push_back("rfid A 0a");
        expected.insert(expected.end(), {"disconnect A", "disconnect B", "service lost"});
        EXPECT_EQ(run(), expected);
        EXPECT_TRUE(PcscService::isServiceLoss(loss.result));
        EXPECT_EQ(LogCapture::instance().count({"PC/SC service lost:", QString::number(qint32(loss.result))}), 1);
        EXPECT_EQ(calls("Cancel"), Lines{}) << "the loop ended without a stop";
    }
}

TEST_F(CardLoop, ReaderNamesGoBackToPcscAsTheyCameAndToClientsAsValidText)
{
    const std::string utf8 = "Lecteur \xC3\xA9 \xF0\x9F\x92\xB3";
    const std::string latin1 = "Leser \xE9";
    const std::string broken = "Reader \xC3";
    stack.readers = {utf8, latin1, broken};
    stack.cards[utf8] = tag({0x01});
    stack.cards[latin1] = tag({0x02});
    stack.cards[broken] = tag({0x03});

    const QString utf8Text = QString::fromUtf8("Lecteur \xC3\xA9 \xF0\x9F\x92\xB3");
    const QString latin1Text = QString::fromUtf8("Leser \xC3\xA9");
    const QString brokenText = QString::fromUtf8("Reader \xC3\x83");
    const auto connectLine = [](const QString& name) { return ("connect " + name).toStdString(); };
    const auto rfidLine = [](const QString& name, const char* id) { return ("rfid " + name + " " + id).toStdString(); };
    EXPECT_EQ(run(), (Lines{connectLine(utf8Text), connectLine(latin1Text), connectLine(brokenText),
                            rfidLine(utf8Text, "01"), rfidLine(latin1Text, "02"), rfidLine(brokenText, "03"), ("disconnect " + utf8Text).toStdString(),
                            ("disconnect " + latin1Text).toStdString(), ("disconnect " + brokenText).toStdString()}));
    EXPECT_EQ(calls("Connect "), (Lines{"Connect " + utf8, "Connect " + latin1, "Connect " + broken}));

    // As clients get them.
    for (const QString& name : {utf8Text, latin1Text, brokenText}) {
        const QByteArray json = ReaderCommand::build(name, true).toUtf8();
        EXPECT_EQ(QJsonDocument::fromJson(json).object().value(QStringLiteral("name")).toString(), name) << json.toStdString();
    }
}

TEST_F(CardLoop, EndsAtOnceAfterAStopOrWithoutAContext)
{
    stack.readers = {"A"};
    // A failing cancel or release is only logged: the stop holds all the same.
    stack.failures = {{"Cancel", SCARD_E_INVALID_HANDLE}, {"Release", SCARD_E_INVALID_HANDLE}};
    controller->stop();
    EXPECT_EQ(run(), Lines{});
    controller.reset();
    EXPECT_EQ(stack.journal.back(), "Release");

    start(SCARD_E_NO_SERVICE);
    stack.readers = {"A"};
    EXPECT_EQ(run(), Lines{});
    EXPECT_EQ(LogCapture::instance().count(
                  {"Could not get PCSC context:", "-2146435043", "resource manager is not running."}),
              1);
}

} // namespace
