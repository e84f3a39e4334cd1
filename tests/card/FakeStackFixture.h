#pragma once

#include "FakePcsc.h"
#include "LogCapture.h"
#include "SmartCardController.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <cctype>
#include <iterator>
#include <memory>
#include <mutex>

using Lines = std::vector<std::string>;

// Hands the PC/SC failures the card code logs ("<call> returned: <code> <text>") to the
// observer as "error <hex code> <text>", on the logging thread and in order with the signals.
class FailureLog : public Log::Destination
{
public:
    using Observer = std::function<void(const QString& line)>;

    static void observe(Observer observer)
    {
        static const bool installed = [] {
            LogCapture::instance(); // sets the level, and must come first
            Log::Logger::instance().addDestination(Log::DestinationPtr(new FailureLog));
            return true;
        }();
        (void)installed;
        std::lock_guard<std::mutex> lock(mutex());
        current() = std::move(observer);
    }

    void write(const QString& message, Log::Level) override
    {
        static const QRegularExpression failure(QStringLiteral(R"re(returned: (-?\d+) "(.*)"\s*$)re"));
        const QRegularExpressionMatch match = failure.match(message);
        std::lock_guard<std::mutex> lock(mutex());
        if (!match.hasMatch() || !current())
            return;
        const quint32 code = static_cast<quint32>(match.captured(1).toInt());
        current()(QStringLiteral("error %1 %2").arg(code, 8, 16, QLatin1Char('0')).arg(match.captured(2)));
    }
    bool isValid() override { return true; }

private:
    static std::mutex& mutex()
    {
        static std::mutex guard;
        return guard;
    }
    static Observer& current()
    {
        static Observer observer;
        return observer;
    }
};

// Hands a controller's signals and logged PC/SC failures to `observer` as lines ("connect
// <reader>", "rfid <reader> <hex id>", "sc <reader> <hex id>", "removed <reader>", "error <hex
// code> <text>", ...), on whichever thread emits them.
class CardEventLog
{
public:
    using Observer = std::function<void(const QString& line)>;

    CardEventLog(SmartCardController* controller, Observer observer)
    {
        using C = SmartCardController;
        const auto on = [&](auto signal, auto toLine) {
            QObject::connect(controller, signal, controller,
                             [observer, toLine](auto... args) { observer(toLine(args...)); }, Qt::DirectConnection);
        };
        FailureLog::observe(observer);
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
    ~CardEventLog() { FailureLog::observe({}); }
    CardEventLog(const CardEventLog&) = delete;
    CardEventLog& operator=(const CardEventLog&) = delete;
};

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
        events.reset();
        controller.reset(); // releases its context on the old stack
        LogCapture::instance().clear();
        FakePcsc::stack = FakePcsc::Stack();
        if (establish != SCARD_S_SUCCESS)
            FakePcsc::stack.failures["Establish"] = establish;
        controller = std::make_unique<SmartCardController>();
        FakePcsc::stack.onScriptEnd = [this] { controller->stop(); };
        events = std::make_unique<CardEventLog>(
            controller.get(), [](const QString& line) { FakePcsc::stack.journal.push_back(line.toStdString()); });
        EXPECT_EQ(controller->initialize(), establish == SCARD_S_SUCCESS);
    }

    // The signals and the test's notes, in order: the journal without the PC/SC calls, which
    // are capitalised.
    Lines run()
    {
        controller->process();
        return notes();
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

    static bool logged(const QStringList& fragments) { return LogCapture::instance().contains(fragments); }

    std::unique_ptr<SmartCardController> controller;
    std::unique_ptr<CardEventLog> events;
};
