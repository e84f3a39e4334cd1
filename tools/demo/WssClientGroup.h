#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Many wss connections to one local port, all driven by one asio thread, so a thousand
// clients cost a thousand sockets and not a thousand threads. The server's certificate is
// not verified. Handlers run on the group's thread and must be quick.
class WssClientGroup
{
public:
    using Clock = std::chrono::steady_clock;
    using MessageHandler = std::function<void(int connection, const std::string& text, Clock::time_point arrival)>;
    // A connection that was open has closed or dropped.
    using CloseHandler = std::function<void(int connection, const std::string& reason)>;

    explicit WssClientGroup(MessageHandler onMessage, CloseHandler onClose = {});
    ~WssClientGroup(); // drops every connection without a close handshake
    WssClientGroup(const WssClientGroup&) = delete;
    WssClientGroup& operator=(const WssClientGroup&) = delete;

    // Opens `count` connections (numbered from 0) to wss://127.0.0.1:port, at most `inFlight`
    // handshakes at a time so a busy server is not flooded. Call once per group. True once
    // all are open; false when one failed or the time ran out.
    bool connect(uint16_t port, int count, std::chrono::milliseconds timeout, int inFlight = 16);
    // Closes the open connections politely and waits for the server's answers.
    bool closeAll(std::chrono::milliseconds timeout);

    int openCount() const;
    std::string lastError() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};
