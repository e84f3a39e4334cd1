#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>

// Tells the log of connections refused for want of room: at most one line a second, with how
// many were refused since the line before, so that a client retrying in a loop cannot flood
// it. Server thread only.
class RefusalLog
{
public:
    explicit RefusalLog(boost::asio::io_context& ioContext);

    void refused(int limit);
    void stop();

private:
    void write();

    boost::asio::steady_timer nextLine;
    std::chrono::steady_clock::time_point lastLine;
    bool lineDue = false;
    int count = 0;
    int limit = 0;
};
