#pragma once

#include <QString>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <vector>

// The messages a client received, so a command can wait for the one its card causes.
// Filled on the client's thread, waited on by another.
class MessageLog
{
public:
    using Clock = std::chrono::steady_clock;

    // Keeps the message's "type" and "tag_id" (empty for messages about no card).
    void append(const QString& text, Clock::time_point arrival);
    size_t size() const;
    // When the first `type` message with this tag_id at position `from` or later arrived;
    // nullopt on time-out or cancel.
    std::optional<Clock::time_point> waitFor(const QString& type, const QString& tagId, size_t from,
                                             std::chrono::milliseconds timeout);
    // Ends the current wait and every later one.
    void cancel();

private:
    struct Entry
    {
        QString type;
        QString tagId;
        Clock::time_point arrival;
    };

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Entry> entries;
    bool cancelled = false;
};
