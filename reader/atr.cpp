#include "reader/atr.h"

#include <cstring>

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
    words_.write([&](Words& words) {
        for (uint32_t i = 0; i < Atr::capacity / 4; ++i) {
            uint32_t word;
            std::memcpy(&word, value.bytes + i * 4, 4);
            words.bytes[i].store(word, std::memory_order_relaxed);
        }
        length_.store(value.length, std::memory_order_relaxed);
    });
}

Atr SharedAtr::load() const
{
    Atr value;
    words_.read([&](const Words& words) {
        for (uint32_t i = 0; i < Atr::capacity / 4; ++i) {
            uint32_t word = words.bytes[i].load(std::memory_order_relaxed);
            std::memcpy(value.bytes + i * 4, &word, 4);
        }
        value.length = length_.load(std::memory_order_relaxed);
    });
    if (value.length > Atr::capacity) value.length = Atr::capacity;
    return value;
}
