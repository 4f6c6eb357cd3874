// The two kinds of lock that the library uses. Everything else between
// threads is shared through atomics.
#pragma once

#include <mutex>

namespace platform {

// A plain exclusive lock, held for a short stretch and never recursively.
class ExclusiveLock {
public:
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    std::mutex mutex_;
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
