#pragma once

#include "FakePcsc.h"
#include "LogCapture.h"
#include "SmartCardController.h"
#include "SmartCardErrorMessages.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <memory>

using Lines = std::vector<std::string>;

// Puts the PC/SC failures the card code logs ("<call> returned: <code> <text>") into the
// scripted stack's journal as "error <hex code> <text>", in order with the calls and signals.
class FailureLog : public Log::Destination
{
public:
    static void install()
    {
        static const bool installed = [] {
            LogCapture::instance(); // sets the level, and must come first
            Log::Logger::instance().addDestination(Log::DestinationPtr(new FailureLog));
            return true;
        }();
        (void)installed;
    }

    void write(const QString& message, Log::Level) override
    {
        static const QRegularExpression failure(QStringLiteral(R"re(returned: (-?\d+) "(.*)"\s*$)re"));
        const QRegularExpressionMatch match = failure.match(message);
        if (!match.hasMatch())
            return;
        const quint32 code = static_cast<quint32>(match.captured(1).toInt());
        FakePcsc::stack.journal.push_back(
            QStringLiteral("error %1 %2").arg(code, 8, 16, QLatin1Char('0')).arg(match.captured(2)).toStdString());
    }
    bool isValid() override { return true; }
};

// Puts a controller's signals into the scripted stack's journal ("connect <reader>", "rfid
// <reader> <hex id>", "sc <reader> <hex id>", "removed <reader>", ...), on whichever thread
// emits them.
inline void journalSignals(SmartCardController* controller)
{
    using C = SmartCardController;
    const auto on = [controller](auto signal, auto toLine) {
        QObject::connect(controller, signal, controller,
                         [toLine](auto... args) { FakePcsc::stack.journal.push_back(toLine(args...).toStdString()); },
                         Qt::DirectConnection);
    };
    const auto card = [](const char* type) {
        return [type](const QString& reader, const QByteArray& id) {
            return QStringLiteral("%1 %2 %3").arg(QLatin1String(type), reader, QString::fromLatin1(id.toHex()));
        };
    };
    on(&C::onRFID, card("rfid"));
    on(&C::onSC, card("sc"));
    on(&C::onReaderConnect, [](const QString& name) { return "connect " + name; });
    on(&C::onReaderDisconnect, [](const QString& name) { return "disconnect " + name; });
    on(&C::cardRemoved, [](const QString& name) { return "removed " + name; });
    on(&C::serviceLost, [] { return QStringLiteral("service lost"); });
}

// Runs the card loop on the test's own thread against the scripted PC/SC stack; the loop
// is stopped when the script is used up. Signals go into the stack's journal, so they show
// up between the calls that caused them.
class FakeStack : public ::testing::Test
{
protected:
    void SetUp() override { start(); }

    // A fresh stack and controller, whose context is established or fails with `establish`.
    void start(LONG establish = SCARD_S_SUCCESS)
    {
        controller.reset(); // releases its context on the old stack
        FailureLog::install();
        LogCapture::instance().clear();
        FakePcsc::stack = FakePcsc::Stack();
        if (establish != SCARD_S_SUCCESS)
            FakePcsc::stack.failures["Establish"] = establish;
        controller = std::make_unique<SmartCardController>();
        FakePcsc::stack.onScriptEnd = [this] { controller->stop(); };
        journalSignals(controller.get());
        EXPECT_EQ(controller->initialize(), establish == SCARD_S_SUCCESS);
    }

    // The signals and the test's notes, in order: the journal without the PC/SC calls, which
    // are capitalised.
    Lines run()
    {
        controller->process();
        return notes();
    }

    // A failure as FailureLog puts it into the journal.
    static std::string errorLine(LONG failure)
    {
        return QStringLiteral("error %1 %2")
            .arg(static_cast<quint32>(failure), 8, 16, QLatin1Char('0'))
            .arg(SmartCardErrorMessages::text(static_cast<int>(failure)))
            .toStdString();
    }

    static Lines notes() { return journalEntries([](const std::string& entry) { return !std::isupper(static_cast<unsigned char>(entry[0])); }); }

    // The journal's entries that begin with `prefix`.
    static Lines calls(const std::string& prefix)
    {
        return journalEntries([&](const std::string& entry) { return entry.rfind(prefix, 0) == 0; });
    }

    template <typename Keep>
    static Lines journalEntries(Keep keep)
    {
        Lines lines;
        std::copy_if(FakePcsc::stack.journal.begin(), FakePcsc::stack.journal.end(), std::back_inserter(lines),
                     [&](const std::string& entry) { return !entry.empty() && keep(entry); });
        return lines;
    }

    std::unique_ptr<SmartCardController> controller;
};
