#include "TagArrivals.h"

#include <algorithm>

std::optional<std::string> jsonStringField(const std::string& json, const std::string& key)
{
    const std::string quotedKey = '"' + key + '"';
    size_t at = json.find(quotedKey);
    if (at == std::string::npos)
        return std::nullopt;
    at = json.find_first_not_of(" \t\r\n", at + quotedKey.size());
    if (at == std::string::npos || json[at] != ':')
        return std::nullopt;
    at = json.find_first_not_of(" \t\r\n", at + 1);
    if (at == std::string::npos || json[at] != '"')
        return std::nullopt;
    const size_t end = json.find('"', at + 1);
    if (end == std::string::npos)
        return std::nullopt;
    return json.substr(at + 1, end - at - 1);
}

TagArrivals::TagArrivals(int connections)
    : connections(connections), greeted(static_cast<size_t>(connections)), tagged(static_cast<size_t>(connections))
{
}

void TagArrivals::onMessage(int connection, const std::string& text, Clock::time_point arrival)
{
    const std::optional<std::string> type = jsonStringField(text, "type");
    if (!type || connection < 0 || connection >= connections)
        return;
    const size_t index = static_cast<size_t>(connection);
    bool done = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (*type == "VERSION" && !greeted[index]) {
            greeted[index] = true;
            done = ++greetedCount == connections;
        } else if (*type == expectedType && !tagged[index] && !expected.empty()
                   && jsonStringField(text, "tag_id") == expected) {
            tagged[index] = true;
            spread.first = taggedCount == 0 ? arrival : std::min(spread.first, arrival);
            spread.last = taggedCount == 0 ? arrival : std::max(spread.last, arrival);
            done = ++taggedCount == connections;
        }
    }
    if (done)
        changed.notify_all();
}

bool TagArrivals::waitForGreetings(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [this] { return greetedCount == connections || cancelled; })
           && !cancelled;
}

void TagArrivals::expect(const std::string& tagId, const std::string& type)
{
    std::lock_guard<std::mutex> lock(mutex);
    expected = tagId;
    expectedType = type;
    std::fill(tagged.begin(), tagged.end(), false);
    taggedCount = 0;
}

std::optional<TagArrivals::Spread> TagArrivals::waitForAll(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_for(lock, timeout, [this] { return taggedCount == connections || cancelled; }) || cancelled)
        return std::nullopt;
    return spread;
}

void TagArrivals::cancel()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        cancelled = true;
    }
    changed.notify_all();
}
