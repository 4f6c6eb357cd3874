#include "reader/mailbox.h"

#include <cstring>

namespace {

// Copies `count` bytes into atomic words. The writer owns the words while
// it holds the sequence counter.
void storeWords(std::atomic<uint32_t>* words, const uint8_t* data, uint32_t count)
{
    uint32_t whole = count / 4;
    for (uint32_t i = 0; i < whole; ++i) {
        uint32_t word;
        std::memcpy(&word, data + i * 4, 4);
        words[i].store(word, std::memory_order_relaxed);
    }
    uint32_t rest = count % 4;
    if (rest != 0) {
        uint32_t word = words[whole].load(std::memory_order_relaxed);
        std::memcpy(&word, data + whole * 4, rest);
        words[whole].store(word, std::memory_order_relaxed);
    }
}

void loadWords(const std::atomic<uint32_t>* words, uint8_t* destination, uint32_t count)
{
    uint32_t whole = count / 4;
    for (uint32_t i = 0; i < whole; ++i) {
        uint32_t word = words[i].load(std::memory_order_relaxed);
        std::memcpy(destination + i * 4, &word, 4);
    }
    uint32_t rest = count % 4;
    if (rest != 0) {
        uint32_t word = words[whole].load(std::memory_order_relaxed);
        std::memcpy(destination + whole * 4, &word, rest);
    }
}

}  // namespace

void Mailbox::write(const uint8_t* data, uint32_t count, uint32_t tag)
{
    if (count > capacity) count = capacity;
    // Two writers of one mailbox (two host threads outside the reader's
    // turn) take turns on the counter instead of mixing their frames.
    frame_.write([&](Frame& frame) {
        storeWords(frame.words, data, count);
        length.store(count, std::memory_order_relaxed);
        frame.tag.store(tag, std::memory_order_relaxed);
    });
    unread.store(1, std::memory_order_release);
    arrived.store(1, std::memory_order_release);
}

uint32_t Mailbox::read(uint8_t* destination, uint32_t* tag)
{
    uint32_t count = 0;
    uint32_t messageTag = 0;
    frame_.read([&](const Frame& frame) {
        count = length.load(std::memory_order_relaxed);
        if (count > capacity) count = capacity;
        loadWords(frame.words, destination, count);
        messageTag = frame.tag.load(std::memory_order_relaxed);
    });
    unread.store(0, std::memory_order_release);
    if (tag != nullptr) *tag = messageTag;
    return count;
}
