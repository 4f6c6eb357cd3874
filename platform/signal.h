// A wake-up with a deadline: the one way a thread of the library waits for
// something another thread does. A waiter reads generation() before it
// tests its condition, and waits only while the generation is unchanged, so
// a notify() that comes between the test and the wait is never missed.
// Every wait also ends at its limit, so a waiter that is never woken still
// re-tests its condition on time.
#pragma once

#include <atomic>
#include <cstdint>

#ifndef _WIN32
#include <condition_variable>
#include <mutex>
#endif

namespace platform {

class Signal {
public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    uint32_t generation() const { return generation_.load(std::memory_order_seq_cst); }

    // Moves the generation on and wakes every waiter. Cheap while nobody
    // waits: no lock is taken then.
    void notify();

    // Blocks while the generation is still `seen`, for at most `limitMs`
    // milliseconds of the library's clocks (shortened by the test seam's
    // time scale like every pause). True if the generation moved on.
    bool wait(uint32_t seen, uint32_t limitMs) { return waitUntil(seen, deadlineIn(limitMs)); }

    // The same with a deadline fixed beforehand, for a wait that may be
    // woken for other reasons and sleeps on to the same moment. False only
    // once the deadline has passed.
    struct Deadline {
        int64_t realUs;
    };
    static Deadline deadlineIn(uint32_t limitMs);
    static bool reached(Deadline deadline);
    static Deadline earlier(Deadline a, Deadline b) { return a.realUs < b.realUs ? a : b; }
    bool waitUntil(uint32_t seen, Deadline deadline);

    // Waits until `holds()` is true or the deadline has passed, with the
    // generation read before each test; true if the condition holds. For
    // every condition that the notifiers of this signal can change.
    template <typename Condition>
    bool waitFor(Condition holds, Deadline deadline)
    {
        for (;;) {
            const uint32_t seen = generation();
            if (holds()) return true;
            if (reached(deadline)) return false;
            waitUntil(seen, deadline);
        }
    }

private:
    // Blocks while the generation is `seen`, until notified or the real
    // deadline (the system's monotonic clock, in microseconds).
    void blockUntil(uint32_t seen, int64_t deadlineUs);
    void wakeAll();

    std::atomic<uint32_t> generation_{0};
    std::atomic<uint32_t> waiters_{0};
#ifdef _WIN32
    // An SRW lock and a condition variable (windows/signal.cpp): both are
    // one pointer that starts out zero.
    void* lock_ = nullptr;
    void* condition_ = nullptr;
#else
    std::mutex mutex_;
    std::condition_variable condition_;
#endif
};

}  // namespace platform
