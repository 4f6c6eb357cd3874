// One message deep: a fixed buffer for one whole frame, with two flags so
// that two consumers (the status thread and a waiting exchange) each follow
// the same message on their own. A write replaces the message whatever the
// flags say; a read leaves it in place.
//
// The bytes are shared between threads without a lock, behind a sequence
// counter (SequenceCounted), so a reader never takes a frame that is half
// old and half new; the bytes and `length` are complete before `unread` and
// `arrived` are set.
#pragma once

#include <atomic>
#include <cstdint>

#include "reader/sequence_counted.h"

class Mailbox {
public:
    static constexpr uint32_t capacity = 2048;

    // Copies `count` bytes in (at most `capacity`), sets `length`, then
    // `unread` and `arrived`. `tag` travels with the message: the reader's
    // count of frames sent when it arrived.
    void write(const uint8_t* data, uint32_t count, uint32_t tag = 0);

    // Copies `length` bytes to `destination`, which holds `capacity` bytes,
    // clears `unread` and returns the length; the message's tag goes to
    // `tag` if given.
    uint32_t read(uint8_t* destination, uint32_t* tag = nullptr);

    void clearArrived() { arrived.store(0, std::memory_order_release); }

    uint16_t flag(bool selectArrived) const
    {
        return selectArrived ? arrived.load(std::memory_order_acquire) : unread.load(std::memory_order_acquire);
    }

    std::atomic<uint32_t> length{0};
    std::atomic<uint16_t> unread{0};
    std::atomic<uint16_t> arrived{0};

private:
    struct Frame {
        std::atomic<uint32_t> words[capacity / 4];
        std::atomic<uint32_t> tag;
    };
    SequenceCounted<Frame> frame_;
};
