#include "MessageLog.h"

#include <QJsonDocument>
#include <QJsonObject>

void MessageLog::append(const QString& text, Clock::time_point arrival)
{
    const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
    {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back({message.value(QLatin1String("type")).toString(),
                           message.value(QLatin1String("tag_id")).toString(), arrival});
    }
    changed.notify_all();
}

size_t MessageLog::size() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return entries.size();
}

std::optional<MessageLog::Clock::time_point>
MessageLog::waitFor(const QString& type, const QString& tagId, size_t from, std::chrono::milliseconds timeout)
{
    std::optional<Clock::time_point> found;
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [&] {
        for (size_t i = from; i < entries.size() && !found; ++i) {
            if (entries[i].type == type && entries[i].tagId == tagId)
                found = entries[i].arrival;
        }
        return found || cancelled;
    });
    return found;
}

void MessageLog::cancel()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        cancelled = true;
    }
    changed.notify_all();
}
