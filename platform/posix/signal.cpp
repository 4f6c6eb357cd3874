#include "platform/os_clock.h"
#include "platform/signal.h"

#include <chrono>

namespace platform {

Signal::Signal() = default;
Signal::~Signal() = default;

void Signal::blockUntil(uint32_t seen, int64_t deadlineUs)
{
    const int64_t remainingUs = deadlineUs - os::monotonicMicroseconds();
    if (remainingUs <= 0) return;
    std::unique_lock<std::mutex> lock(mutex_);
    // Tested again under the lock, which a notifier that counted this
    // waiter takes before it wakes: no wake falls in between.
    if (generation_.load(std::memory_order_seq_cst) != seen) return;
    condition_.wait_for(lock, std::chrono::microseconds(remainingUs));
}

void Signal::wakeAll()
{
    { std::lock_guard<std::mutex> lock(mutex_); }
    condition_.notify_all();
}

}  // namespace platform
