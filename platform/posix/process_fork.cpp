#include "platform/process_fork.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace platform {

namespace {

struct HeldLock {
    ForkLockRank rank;
    ExclusiveLock* lock;
};

// The registered locks, in rank order. Made on first use and never
// destroyed, so that a fork during the process's exit still finds them.
struct ForkLocks {
    std::mutex guard;  // held from the prepare handler to the after handlers
    std::vector<HeldLock> locks;
    std::atomic<uint32_t> epoch{0};
};

ForkLocks& forkLocks();

void takeBeforeFork() NO_THREAD_SAFETY_ANALYSIS
{
    ForkLocks& all = forkLocks();
    all.guard.lock();
    for (const HeldLock& held : all.locks) held.lock->lock();
}

void releaseAfterFork() NO_THREAD_SAFETY_ANALYSIS
{
    ForkLocks& all = forkLocks();
    for (auto it = all.locks.rbegin(); it != all.locks.rend(); ++it) it->lock->unlock();
    all.guard.unlock();
}

void releaseInChild()
{
    // Before any lock is free, so that no call of the child can find a
    // parent's value valid.
    forkLocks().epoch.fetch_add(1, std::memory_order_acq_rel);
    releaseAfterFork();
}

ForkLocks& forkLocks()
{
    static ForkLocks* instance = [] {
        auto* made = new ForkLocks;
        pthread_atfork(takeBeforeFork, releaseAfterFork, releaseInChild);
        return made;
    }();
    return *instance;
}

}  // namespace

uint32_t processEpoch() { return forkLocks().epoch.load(std::memory_order_acquire); }

void holdAcrossFork(ExclusiveLock& lock, ForkLockRank rank)
{
    ForkLocks& all = forkLocks();
    std::lock_guard<std::mutex> hold(all.guard);
    auto place = std::upper_bound(all.locks.begin(), all.locks.end(), rank,
                                  [](ForkLockRank r, const HeldLock& held) { return r < held.rank; });
    all.locks.insert(place, HeldLock{rank, &lock});
}

}  // namespace platform
