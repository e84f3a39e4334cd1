#pragma once

#include "CardEventLog.h"
#include "FakePcsc.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <memory>

using Lines = std::vector<std::string>;

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
        LogCapture::instance().clear();
        FakePcsc::stack = FakePcsc::Stack();
        if (establish != SCARD_S_SUCCESS)
            FakePcsc::stack.failures["Establish"] = establish;
        controller = std::make_unique<SmartCardController>();
        FakePcsc::stack.onScriptEnd = [this] { controller->stop(); };
        events = std::make_unique<CardEventLog>(
            controller.get(), [](const QString& line) { FakePcsc::stack.journal.push_back(line.toStdString()); });
        EXPECT_EQ(controller->Initialize(), establish == SCARD_S_SUCCESS);
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
