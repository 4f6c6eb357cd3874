// A record shared between threads without a lock: its words are atomics
// behind a sequence counter. A writer makes the counter odd, stores, and
// makes it even again; a reader copies between two equal, even readings of
// the counter and otherwise copies again, so it never takes a record that
// is half old and half new. Two writers take turns on the counter instead
// of mixing their stores.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

template <typename Words>
class SequenceCounted {
public:
    // `store(Words&)` runs while this writer owns the words.
    template <typename Store>
    void write(Store store)
    {
        uint32_t sequence = sequence_.load(std::memory_order_relaxed);
        for (;;) {
            if ((sequence & 1) == 0 &&
                sequence_.compare_exchange_weak(sequence, sequence + 1, std::memory_order_acquire,
                                                std::memory_order_relaxed))
                break;
            platform::yieldProcessor();
            sequence = sequence_.load(std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_release);
        store(words_);
        sequence_.store(sequence + 2, std::memory_order_release);
    }

    // `load(const Words&)` copies out; it runs again until its copy was
    // taken while no writer was at work.
    template <typename Load>
    void read(Load load) const
    {
        for (;;) {
            uint32_t before = sequence_.load(std::memory_order_acquire);
            if (before & 1) {
                platform::yieldProcessor();
                continue;
            }
            load(words_);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (sequence_.load(std::memory_order_relaxed) == before) return;
        }
    }

private:
    Words words_{};
    std::atomic<uint32_t> sequence_{0};
};
