#pragma once

#include <QThread>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

// Qt 5 hands a finished thread over to QThread::wait() through its own locks, which the thread
// sanitizer cannot see; without help it takes every release of an object the thread used as a
// race. These announce the hand-over; in other builds they are a plain wait.
namespace ThreadJoin {

// Call once, before the thread starts.
inline void announceEnd(QThread* thread)
{
#if defined(__SANITIZE_THREAD__)
    QObject::connect(thread, &QThread::finished, thread, [thread] { __tsan_release(thread); },
                     Qt::DirectConnection);
#else
    Q_UNUSED(thread);
#endif
}

// True once the thread has ended; false when `timeoutMs` passed first.
inline bool wait(QThread* thread, unsigned long timeoutMs = ULONG_MAX)
{
    if (!thread->wait(timeoutMs))
        return false;
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(thread);
#endif
    return true;
}

} // namespace ThreadJoin
