#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The value of a string field of a flat JSON object such as the service's messages, found
// without building a document: with a thousand clients, the client's thread has to keep up.
std::optional<std::string> jsonStringField(const std::string& json, const std::string& key);

// When each of a group's connections received the greeting, and the card message (TAG, or SC
// for an ACOS card) of the current tap. Messages are recorded on the group's thread and waited
// for on another.
class TagArrivals
{
public:
    using Clock = std::chrono::steady_clock;
    struct Spread
    {
        Clock::time_point first;
        Clock::time_point last;
    };

    explicit TagArrivals(int connections);

    void onMessage(int connection, const std::string& text, Clock::time_point arrival);
    // Until every connection has had the VERSION message that ends the greeting.
    bool waitForGreetings(std::chrono::milliseconds timeout);
    // Forgets the previous tap's message and watches for this one.
    void expect(const std::string& tagId, const std::string& type = "TAG");
    // Until every connection has the expected message; when the first and the last one came.
    std::optional<Spread> waitForAll(std::chrono::milliseconds timeout);
    void cancel();

private:
    const int connections;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> greeted;
    int greetedCount = 0;
    std::string expected;
    std::string expectedType;
    std::vector<bool> tagged;
    int taggedCount = 0;
    Spread spread;
    bool cancelled = false;
};
