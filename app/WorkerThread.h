#pragma once

#include <QThread>

#include <chrono>
#include <memory>
#include <utility>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

// Runs one worker object on a thread of its own, as in Qt's worker-thread examples: the
// worker is moved to the thread and its process() slot runs once the thread starts. The
// worker's stop() must end process() from any thread. Destroying this object stops the
// worker, wakes it until its thread has ended, and only then deletes it, on the owner's
// thread: a deferred delete would never run on an ended thread.
template <typename Worker>
class WorkerThread
{
public:
    explicit WorkerThread(std::unique_ptr<Worker> worker) : workerObject(std::move(worker))
    {
        workerObject->moveToThread(&thread);
        QObject::connect(&thread, &QThread::started, workerObject.get(), &Worker::process);
#if defined(__SANITIZE_THREAD__)
        // Qt 5 hands a finished thread over to wait() through its own locks, which the thread
        // sanitizer cannot see; without this it takes every later use of the worker as a race.
        QObject::connect(&thread, &QThread::finished, &thread, [this] { __tsan_release(&thread); },
                         Qt::DirectConnection);
#endif
    }

    ~WorkerThread()
    {
        workerObject->stop();
        thread.quit();
        // A wake that reaches a worker just before it begins a blocking wait can be lost (PC/SC
        // drops a cancel that finds no wait in progress): it is repeated until the thread ends.
        while (!thread.wait(static_cast<unsigned long>(wakeInterval.count())))
            workerObject->stop();
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(&thread);
#endif
    }

    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Connect to the worker's signals before start().
    Worker& worker() { return *workerObject; }
    void start() { thread.start(); }

private:
    static constexpr std::chrono::milliseconds wakeInterval{100};

    // Declared first so it is destroyed last, after the worker.
    QThread thread;
    std::unique_ptr<Worker> workerObject;
};
