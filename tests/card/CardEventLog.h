#pragma once

#include "SmartCardController.h"

#include <QRegularExpression>
#include <QStringList>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

// Records a controller's signals as lines ("connect <reader>", "rfid <id>", "sc <id>",
// "removed", "error <hex code> <text>", ...), from whichever thread emits them.
class CardEventLog
{
public:
    using Observer = std::function<void(const QString& line)>;

    explicit CardEventLog(SmartCardController* controller, Observer observer = {}) : observer(std::move(observer))
    {
        using C = SmartCardController;
        const auto on = [&](auto signal, auto toLine) {
            QObject::connect(controller, signal, controller, [this, toLine](auto... args) { add(toLine(args...)); },
                             Qt::DirectConnection);
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

    QStringList lines() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }

    QStringList linesStartingWith(const QString& prefix) const { return lines().filter(startingWith(prefix)); }

    // Until `count` lines start with `prefix`. pcscd looks at its virtual readers every 400 ms,
    // and later under load.
    bool waitFor(const QString& prefix, int count = 1) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(30),
                                [&] { return recorded.filter(startingWith(prefix)).size() >= count; });
    }

private:
    static QRegularExpression startingWith(const QString& prefix)
    {
        return QRegularExpression("^" + QRegularExpression::escape(prefix));
    }

    void add(const QString& line)
    {
        if (observer)
            observer(line);
        {
            std::lock_guard<std::mutex> lock(mutex);
            recorded << line;
        }
        changed.notify_all();
    }

    Observer observer;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    QStringList recorded;
};
