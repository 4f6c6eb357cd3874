#include "platform/signal.h"

#include "platform/clock.h"
#include "platform/os_clock.h"

namespace platform {

void Signal::notify()
{
    // The generation and the count of waiters are both sequentially
    // consistent: either this thread sees the waiter, or the waiter sees
    // the new generation before it blocks.
    generation_.fetch_add(1, std::memory_order_seq_cst);
    if (waiters_.load(std::memory_order_seq_cst) != 0) wakeAll();
}

Signal::Deadline Signal::deadlineIn(uint32_t limitMs)
{
    // One microsecond over the scaled length, so that a clock of the
    // library that counts whole milliseconds has reached the limit when
    // the wait comes back.
    return Deadline{os::monotonicMicroseconds() + pauseLengthUs(limitMs) + 1};
}

bool Signal::reached(Deadline deadline) { return os::monotonicMicroseconds() >= deadline.realUs; }

bool Signal::waitUntil(uint32_t seen, Deadline deadline)
{
    if (generation() != seen) return true;
    const int64_t deadlineUs = deadline.realUs;
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    while (generation() == seen && os::monotonicMicroseconds() < deadlineUs) blockUntil(seen, deadlineUs);
    waiters_.fetch_sub(1, std::memory_order_seq_cst);
    return generation() != seen;
}

}  // namespace platform
