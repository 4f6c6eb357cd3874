#include "reader/atr.h"

#include <cstring>
#include <thread>

Atr::Atr(const uint8_t* data, uint32_t count)
{
    length = count > capacity ? capacity : count;
    if (length > 0) std::memcpy(bytes, data, length);
}

uint32_t Atr::copyTo(uint8_t* destination) const
{
    if (length > 0) std::memcpy(destination, bytes, length);
    return length;
}

// One writer (the rack's status thread), any number of readers.
void SharedAtr::store(const Atr& value)
{
    uint32_t sequence = sequence_.load(std::memory_order_relaxed);
    sequence_.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (uint32_t i = 0; i < Atr::capacity / 4; ++i) {
        uint32_t word;
        std::memcpy(&word, value.bytes + i * 4, 4);
        words_[i].store(word, std::memory_order_relaxed);
    }
    length_.store(value.length, std::memory_order_relaxed);
    sequence_.store(sequence + 2, std::memory_order_release);
}

Atr SharedAtr::load() const
{
    Atr value;
    for (;;) {
        uint32_t before = sequence_.load(std::memory_order_acquire);
        if (before & 1) {
            std::this_thread::yield();
            continue;
        }
        for (uint32_t i = 0; i < Atr::capacity / 4; ++i) {
            uint32_t word = words_[i].load(std::memory_order_relaxed);
            std::memcpy(value.bytes + i * 4, &word, 4);
        }
        value.length = length_.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (sequence_.load(std::memory_order_relaxed) == before) break;
    }
    if (value.length > Atr::capacity) value.length = Atr::capacity;
    return value;
}
