#pragma once

#include "SmartCardController.h"

#include <QString>
#include <QStringList>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

// Records every signal of a SmartCardController, from whichever thread emits it, and
// lets a test wait for what it expects.
class CardEventLog
{
public:
    struct Event
    {
        QString kind; // "error", "rfid", "sc", "connect", "disconnect", "removed" or "unexpected"
        QString text;
        unsigned int code = 0;

        QString toString() const
        {
            if (kind == QLatin1String("error"))
                return QStringLiteral("error %1 %2").arg(code, 8, 16, QLatin1Char('0')).arg(text);
            return kind == QLatin1String("removed") ? kind : kind + QLatin1Char(' ') + text;
        }
    };

    using Observer = std::function<void(const Event&)>;

    explicit CardEventLog(SmartCardController* controller, Observer observer = Observer())
        : observer(std::move(observer))
    {
        using C = SmartCardController;
        const auto direct = Qt::DirectConnection;
        QObject::connect(controller, &C::onError, controller,
                         [this](unsigned int code, QString text) { add({QStringLiteral("error"), text, code}); }, direct);
        QObject::connect(controller, &C::onRFID, controller, [this](QString id) { add({QStringLiteral("rfid"), id}); },
                         direct);
        QObject::connect(controller, &C::onSC, controller, [this](QString id) { add({QStringLiteral("sc"), id}); },
                         direct);
        QObject::connect(controller, &C::onReaderConnect, controller,
                         [this](QString name) { add({QStringLiteral("connect"), name}); }, direct);
        QObject::connect(controller, &C::onReaderDisconnect, controller,
                         [this](QString name) { add({QStringLiteral("disconnect"), name}); }, direct);
        QObject::connect(controller, &C::cardRemoved, controller, [this] { add({QStringLiteral("removed"), {}}); },
                         direct);
        for (auto signal : {&C::cardInserted, &C::cardInvalid, &C::cardDataRead, &C::cardEmptyName,
                            &C::cardWritingInProgress, &C::cardWritingDone}) {
            QObject::connect(controller, signal, controller,
                             [this] { add({QStringLiteral("unexpected"), QStringLiteral("signal")}); }, direct);
        }
    }

    std::vector<Event> events() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }

    QStringList summary() const
    {
        QStringList lines;
        for (const Event& event : events())
            lines << event.toString();
        return lines;
    }

    std::vector<Event> eventsOf(const QString& kind) const
    {
        std::vector<Event> matching;
        for (const Event& event : events()) {
            if (event.kind == kind)
                matching.push_back(event);
        }
        return matching;
    }

    int count(const QString& kind) const { return static_cast<int>(eventsOf(kind).size()); }

    bool waitFor(const std::function<bool(const std::vector<Event>&)>& condition,
                 std::chrono::milliseconds timeout = std::chrono::seconds(30)) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return condition(recorded); });
    }

    bool waitForCount(const QString& kind, int wanted, std::chrono::milliseconds timeout = std::chrono::seconds(30)) const
    {
        return waitFor(
            [&](const std::vector<Event>& events) {
                int seen = 0;
                for (const Event& event : events)
                    seen += event.kind == kind ? 1 : 0;
                return seen >= wanted;
            },
            timeout);
    }

private:
    void add(const Event& event)
    {
        if (observer)
            observer(event);
        {
            std::lock_guard<std::mutex> lock(mutex);
            recorded.push_back(event);
        }
        changed.notify_all();
    }

    Observer observer;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<Event> recorded;
};
