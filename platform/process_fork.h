// What a forked child must not inherit. A child of fork() gets a copy of the
// parent's memory, the library's tables of contexts and card handles
// included, but none of its threads and none of its racks; its calls with
// the parent's values must be refused. Each table records the process epoch
// with every value it hands out and takes only values of the present epoch.
#pragma once

#include <cstdint>

namespace platform {

// Moves on in a forked child, at the fork; 0 in a process that was never
// forked (and always 0 on Windows, which has no fork).
uint32_t processEpoch();

// Handlers run around a fork (pthread_atfork): `prepare` in the parent before
// it, `parent` and `child` after it in each process. A table takes its lock
// in `prepare` and lets it go in the other two, so that the child never
// inherits it held by a thread that does not exist there. Nothing on
// Windows.
void onFork(void (*prepare)(), void (*parent)(), void (*child)());

}  // namespace platform
