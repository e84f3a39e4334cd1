#pragma once

#include <QMutex>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

// Holds a QMutex for one scope. Qt's library is built without ThreadSanitizer, which
// therefore cannot see QMutex hand data from one thread to the next; in such a build
// the lock and the unlock are announced to it as well. Elsewhere it is a plain locker.
class AnnotatedMutexLocker
{
public:
    explicit AnnotatedMutexLocker(QMutex* mutex) : mutex(mutex)
    {
        mutex->lock();
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(mutex);
#endif
    }

    ~AnnotatedMutexLocker()
    {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(mutex);
#endif
        mutex->unlock();
    }

    AnnotatedMutexLocker(const AnnotatedMutexLocker&) = delete;
    AnnotatedMutexLocker& operator=(const AnnotatedMutexLocker&) = delete;

private:
    QMutex* mutex;
};
