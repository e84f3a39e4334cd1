#pragma once

#include "SmartCardController.h"

#include <functional>

// Hands a controller's signals to `observer` as lines ("connect <reader>", "rfid <id>",
// "sc <id>", "removed", "error <hex code> <text>", ...), on whichever thread emits them.
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
        on(&C::onError, [](unsigned int code, const QString& text) {
            return QStringLiteral("error %1 %2").arg(code, 8, 16, QLatin1Char('0')).arg(text);
        });
        on(&C::onRFID, [](const QString& id) { return "rfid " + id; });
        on(&C::onSC, [](const QString& id) { return "sc " + id; });
        on(&C::onReaderConnect, [](const QString& name) { return "connect " + name; });
        on(&C::onReaderDisconnect, [](const QString& name) { return "disconnect " + name; });
        on(&C::cardRemoved, [] { return QStringLiteral("removed"); });
        on(&C::serviceLost, [] { return QStringLiteral("service lost"); });
        // Declared for receivers, never emitted.
        for (auto unused : {&C::cardInserted, &C::cardInvalid, &C::cardDataRead, &C::cardEmptyName,
                            &C::cardWritingInProgress, &C::cardWritingDone})
            on(unused, [] { return QStringLiteral("unexpected signal"); });
    }
};
