#include "platform/os_clock.h"
#include "platform/signal.h"

#include <windows.h>

namespace platform {

static_assert(sizeof(SRWLOCK) == sizeof(void*) && sizeof(CONDITION_VARIABLE) == sizeof(void*),
              "the signal's storage holds an SRW lock and a condition variable");

namespace {
SRWLOCK* srwLock(void** storage) { return reinterpret_cast<SRWLOCK*>(storage); }
CONDITION_VARIABLE* conditionVariable(void** storage) { return reinterpret_cast<CONDITION_VARIABLE*>(storage); }
}  // namespace

// Both start out as zero (SRWLOCK_INIT, CONDITION_VARIABLE_INIT) and need
// no clean-up.
Signal::Signal() = default;
Signal::~Signal() = default;

void Signal::blockUntil(uint32_t seen, int64_t deadlineUs)
{
    const int64_t remainingUs = deadlineUs - os::monotonicMicroseconds();
    if (remainingUs <= 0) return;
    // Whole milliseconds, rounded up; the caller's loop ends the wait at
    // its own deadline whatever the timer makes of this.
    const DWORD milliseconds = static_cast<DWORD>((remainingUs + 999) / 1000);
    AcquireSRWLockExclusive(srwLock(&lock_));
    // Tested again under the lock, which a notifier that counted this
    // waiter takes before it wakes: no wake falls in between.
    if (generation_.load(std::memory_order_seq_cst) == seen)
        SleepConditionVariableSRW(conditionVariable(&condition_), srwLock(&lock_), milliseconds, 0);
    ReleaseSRWLockExclusive(srwLock(&lock_));
}

void Signal::wakeAll()
{
    AcquireSRWLockExclusive(srwLock(&lock_));
    ReleaseSRWLockExclusive(srwLock(&lock_));
    WakeAllConditionVariable(conditionVariable(&condition_));
}

}  // namespace platform
