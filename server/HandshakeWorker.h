#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// A thread of its own for the costly steps of TLS handshakes (key exchange, signature), so that
// the server thread, which carries the card events to the clients, never waits behind a new
// client's key exchange. It keeps the service's priority: below it, a machine busy with other
// programs would serve fewer new clients.
class HandshakeWorker
{
public:
    HandshakeWorker();
    // Jobs still queued are dropped, on the calling thread, without running.
    ~HandshakeWorker();
    HandshakeWorker(const HandshakeWorker&) = delete;
    HandshakeWorker& operator=(const HandshakeWorker&) = delete;

    // Any thread. Jobs run one at a time, in the order they came.
    void run(std::function<void()> job);

private:
    void serve();

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> jobs;
    bool stopping = false;
    std::thread thread;
};
