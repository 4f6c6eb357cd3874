// What a forked child must not inherit. A child of fork() gets a copy of the
// parent's memory, the library's tables of contexts and card handles
// included, but none of its threads and none of its racks; its calls with
// the parent's values must be refused. Each table records the process epoch
// with every value it hands out and takes only values of the present epoch.
//
// Nor may the child inherit a lock that one of the parent's other threads
// held at the fork: that thread does not exist in the child, and the lock
// would stay held there for good. Every lock that a forked child's calls
// take is held across the fork by the forking thread instead.
#pragma once

#include <cstdint>

#include "platform/sync.h"

namespace platform {

// Moves on in a forked child, at the fork; 0 in a process that was never
// forked (and always 0 on Windows, which has no fork).
uint32_t processEpoch();

// The order in which the forking thread takes the locks held across a fork:
// the library's own lock order, outermost first. A thread that holds one of
// them may take only those that come later here, or the forking thread and
// it could each wait for the other.
enum class ForkLockRank : uint8_t {
    connectionTable,  // contexts and card handles
    waitList,         // the status-change waits that a cancel reaches
    traceLog,         // the innermost lock: a log writer takes no other
};

// Has the thread that forks take `lock` before the fork, in rank order, and
// let it go after it in both processes, so that the child finds it free.
// Register a lock once, while the calling thread holds no lock of its
// rank or later. Nothing on Windows.
void holdAcrossFork(ExclusiveLock& lock, ForkLockRank rank);

}  // namespace platform
