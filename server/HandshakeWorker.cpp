#include "HandshakeWorker.h"

HandshakeWorker::HandshakeWorker() : thread([this] { serve(); }) {}

HandshakeWorker::~HandshakeWorker()
{
    std::deque<std::function<void()>> dropped;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        dropped.swap(jobs);
    }
    wake.notify_one();
    thread.join();
}

void HandshakeWorker::run(std::function<void()> job)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        jobs.push_back(std::move(job));
    }
    wake.notify_one();
}

void HandshakeWorker::serve()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (true) {
        wake.wait(lock, [this] { return stopping || !jobs.empty(); });
        if (stopping)
            return;
        std::function<void()> job = std::move(jobs.front());
        jobs.pop_front();
        lock.unlock();
        job();
        // Let go of what it holds now, outside the lock, rather than when the next one comes.
        job = nullptr;
        lock.lock();
    }
}
