#include "reader/mailbox.h"

#include <cstring>

#include "platform/mailbox_copy_hook.h"

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

void MailboxMark::takeUpTo(uint32_t number)
{
    uint32_t taken = taken_.load(std::memory_order_acquire);
    // Compared as a signed distance, so the count may wrap.
    while (static_cast<int32_t>(number - taken) > 0 &&
           !taken_.compare_exchange_weak(taken, number, std::memory_order_acq_rel, std::memory_order_acquire)) {
    }
}

void Mailbox::write(const uint8_t* data, uint32_t count, uint32_t tag)
{
    if (count > capacity) count = capacity;
    // Two writers of one mailbox (two host threads outside the reader's
    // turn) take turns on the counter instead of mixing their frames, and
    // number their writes in that order.
    frame_.write([&](Frame& frame) {
        storeWords(frame.words, data, count);
        length.store(count, std::memory_order_relaxed);
        frame.tag.store(tag, std::memory_order_relaxed);
        const uint32_t number = written_.load(std::memory_order_relaxed) + 1;
        frame.number.store(number, std::memory_order_relaxed);
        written_.store(number, std::memory_order_release);
    });
}

uint32_t Mailbox::read(uint8_t* destination, uint32_t* tag, Taker taker, uint32_t* number)
{
    uint32_t count = 0;
    uint32_t messageTag = 0;
    uint32_t messageNumber = 0;
    frame_.read([&](const Frame& frame) {
        count = length.load(std::memory_order_relaxed);
        if (count > capacity) count = capacity;
        loadWords(frame.words, destination, count);
        messageTag = frame.tag.load(std::memory_order_relaxed);
        messageNumber = frame.number.load(std::memory_order_relaxed);
    });
    platform::runMailboxCopyHook();
    (taker == Taker::status ? unread : arrived).takeUpTo(messageNumber);
    if (tag != nullptr) *tag = messageTag;
    if (number != nullptr) *number = messageNumber;
    return count;
}
