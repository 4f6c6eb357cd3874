#include "platform/process_fork.h"

namespace platform {

// Windows has no fork: every value lives in the process that made it.
uint32_t processEpoch() { return 0; }

void holdAcrossFork(ExclusiveLock&, ForkLockRank) {}

}  // namespace platform
