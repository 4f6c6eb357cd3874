#include "reader/mailbox.h"

#include <cstring>
#include <thread>

namespace {

// Copies `count` bytes into atomic words. The writer owns the words while
// the sequence counter is odd.
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
    // Claim the words: the counter goes from even to odd. Two writers of one
    // mailbox (two host threads outside the reader's turn) take turns here
    // instead of mixing their frames.
    uint32_t sequence = sequence_.load(std::memory_order_relaxed);
    for (;;) {
        if ((sequence & 1) == 0 &&
            sequence_.compare_exchange_weak(sequence, sequence + 1, std::memory_order_acquire,
                                            std::memory_order_relaxed))
            break;
        std::this_thread::yield();
        sequence = sequence_.load(std::memory_order_relaxed);
    }
    std::atomic_thread_fence(std::memory_order_release);
    storeWords(bytes, data, count);
    length.store(count, std::memory_order_relaxed);
    tag_.store(tag, std::memory_order_relaxed);
    sequence_.store(sequence + 2, std::memory_order_release);
    unread.store(1, std::memory_order_release);
    arrived.store(1, std::memory_order_release);
}

uint32_t Mailbox::read(uint8_t* destination, uint32_t* tag)
{
    uint32_t count;
    uint32_t messageTag;
    for (;;) {
        uint32_t before = sequence_.load(std::memory_order_acquire);
        if (before & 1) {
            std::this_thread::yield();
            continue;
        }
        count = length.load(std::memory_order_relaxed);
        if (count > capacity) count = capacity;
        loadWords(bytes, destination, count);
        messageTag = tag_.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (sequence_.load(std::memory_order_relaxed) == before) break;
    }
    unread.store(0, std::memory_order_release);
    if (tag != nullptr) *tag = messageTag;
    return count;
}
