// The card's answer to reset: up to 32 bytes and their count; a count of 0
// means no ATR. A value, copied whole.
#pragma once

#include <atomic>
#include <cstdint>

#include "reader/sequence_counted.h"

struct Atr {
    static constexpr uint32_t capacity = 32;

    Atr() = default;
    // Keeps at most the first 32 bytes: a status message can announce more
    // data than an ATR may have, and the excess is dropped.
    Atr(const uint8_t* data, uint32_t count);

    uint32_t copyTo(uint8_t* destination) const;

    uint8_t bytes[capacity] = {};
    uint32_t length = 0;
};

// An Atr that one thread (the rack's status thread) stores while others
// read it. A reader always gets one whole value, never the bytes of one ATR
// with the length of another.
class SharedAtr {
public:
    void store(const Atr& value);
    Atr load() const;
    uint32_t length() const { return length_.load(std::memory_order_acquire); }

private:
    struct Words {
        std::atomic<uint32_t> bytes[Atr::capacity / 4];
    };
    SequenceCounted<Words> words_;
    std::atomic<uint32_t> length_{0};
};
