// The two kinds of lock that the library uses. Everything else between
// threads is shared through atomics.
#pragma once

#include <mutex>

namespace platform {

// A plain exclusive lock, held for a short stretch and never recursively.
class ExclusiveLock {
public:
#ifdef _WIN32
    ExclusiveLock();
    ~ExclusiveLock();
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;
    void lock();
    void unlock();

private:
    // A critical section (windows/sync.cpp). When a process ends, Windows
    // stops its other threads first; a critical section that one of them
    // left held then ends the process instead of hanging the thread that
    // runs the library's detach, which traces under this lock.
    alignas(void*) unsigned char section_[48];
#else
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    std::mutex mutex_;
#endif
};

// A mutex that is only ever tried: a thread that does not get it goes on
// without it, so no thread ever waits for another one's critical section.
class TryMutex {
public:
    bool tryLock() { return mutex_.try_lock(); }
    void unlock() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

}  // namespace platform
