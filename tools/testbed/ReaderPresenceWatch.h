#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

// Sees cards come and go on a reader the way any plain PC/SC client does, through
// SCardGetStatusChange. Waits run on one thread at a time; cancel() may come from any.
class ReaderPresenceWatch
{
public:
    using Clock = std::chrono::steady_clock;

    ReaderPresenceWatch();
    ~ReaderPresenceWatch();
    ReaderPresenceWatch(const ReaderPresenceWatch&) = delete;
    ReaderPresenceWatch& operator=(const ReaderPresenceWatch&) = delete;

    bool open();
    std::string lastError() const { return error; }

    // Blocks until the reader shows a card (`present`) or none, and returns when the change
    // was seen; nullopt on time-out, cancel or a PC/SC error.
    std::optional<Clock::time_point> waitFor(const std::string& reader, bool present,
                                             std::chrono::milliseconds timeout);
    // Ends the current wait at once, and every later one.
    void cancel();

private:
    // SCARDCONTEXT, kept out of this header; cancel() reads it from another thread.
    std::atomic<long> context{0};
    std::atomic<bool> contextOpen{false};
    std::atomic<bool> cancelled{false};
    std::string error;
};
