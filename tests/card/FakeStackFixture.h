#pragma once

#include "CardEventLog.h"
#include "FakePcsc.h"
#include "LogCapture.h"
#include "SmartCardController.h"

#include <gtest/gtest.h>

#include <memory>

// Runs the monitor loop on the test's own thread against the scripted PC/SC stack;
// the loop ends when the script is used up, as after a stop.
class FakeStackTest : public ::testing::Test
{
protected:
    static const QString& cancelled()
    {
        static const QString text = QStringLiteral("error 80100002 The action was canceled by an SCardCancel request.");
        return text;
    }

    static FakePcsc::Step then(std::function<void()> action)
    {
        return [action]() -> std::optional<LONG> {
            action();
            return std::nullopt;
        };
    }

    void SetUp() override
    {
        FakePcsc::reset();
        LogCapture::instance().clear();
        controller = std::make_unique<SmartCardController>();
        events = std::make_unique<CardEventLog>(controller.get(), [](const CardEventLog::Event& event) {
            FakePcsc::note(event.toString().toStdString());
        });
        ASSERT_TRUE(controller->Initialize());
    }

    QStringList run()
    {
        controller->process();
        return events->summary();
    }

    // What the loop reported about cards: reader announcements and the final cancel left out.
    QStringList cardEvents() const
    {
        QStringList lines;
        for (const QString& line : events->summary()) {
            if (!line.startsWith(QLatin1String("connect ")) && line != cancelled())
                lines << line;
        }
        return lines;
    }

    // The PC/SC calls of card reading, with the signals noted where they were emitted.
    static std::vector<std::string> readSequence()
    {
        std::vector<std::string> sequence;
        bool reading = false;
        for (const std::string& entry : FakePcsc::journal()) {
            if (entry.rfind("Connect ", 0) == 0)
                reading = true;
            if (entry == "Cancel" || entry == "ListReaders" || entry.rfind("error 80100002", 0) == 0)
                reading = false;
            if (reading)
                sequence.push_back(entry);
        }
        return sequence;
    }

    std::unique_ptr<SmartCardController> controller;
    std::unique_ptr<CardEventLog> events;
};
