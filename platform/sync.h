// The two kinds of lock that the library uses. Everything else between
// threads is shared through atomics.
#pragma once

#include <mutex>

#include "platform/thread_safety.h"

namespace platform {

// A plain exclusive lock, held for a short stretch and never recursively.
class CAPABILITY("mutex") ExclusiveLock {
public:
#ifdef _WIN32
    ExclusiveLock();
    ~ExclusiveLock();
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;
    void lock() ACQUIRE();
    void unlock() RELEASE();

private:
    // A critical section (windows/sync.cpp). When a process ends, Windows
    // stops its other threads first; a critical section that one of them
    // left held then ends the process instead of hanging the thread that
    // runs the library's detach, which traces under this lock.
    alignas(void*) unsigned char section_[48];
#else
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
#endif
};

// A mutex that is only ever tried: a thread that does not get it goes on
// without it, so no thread ever waits for another one's critical section.
class CAPABILITY("mutex") TryMutex {
public:
    bool tryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

// Holds an ExclusiveLock for the life of the object. The standard guards
// carry no annotations, so the analysis would not see the lock held.
class SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(ExclusiveLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~LockGuard() RELEASE() { lock_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    ExclusiveLock& lock_;
};

}  // namespace platform
