// One message deep: a fixed buffer for one whole frame, followed by two
// readers (the status thread and a waiting exchange), each on its own. A
// write replaces the message whatever the readers have taken; a read leaves
// it in place.
//
// Every write gets the next number of a write count. Each reader keeps the
// number of the last frame it has taken, and only that reader moves it on,
// so a frame counts as unread for a reader exactly while the mailbox holds
// a newer write than the reader has taken. No thread ever clears another
// thread's mark, and a write that lands while a reader is still finishing
// the previous frame stays unread for it. (Flags that the reader cleared
// after its copy lost such a frame.)
//
// The bytes are shared between threads without a lock, behind a sequence
// counter (SequenceCounted), so a reader never takes a frame that is half
// old and half new; the frame's number travels inside the counted record,
// so a reader records exactly the frame it copied.
#pragma once

#include <atomic>
#include <cstdint>

#include "reader/sequence_counted.h"

// Where one reader of a mailbox stands: the number of the last write it has
// taken, against the mailbox's count of writes. load() is 1 while a newer
// write waits for this reader, 0 otherwise.
class MailboxMark {
public:
    explicit MailboxMark(const std::atomic<uint32_t>& written) : written_(written) {}

    uint16_t load(std::memory_order order = std::memory_order_acquire) const
    {
        return written_.load(order) != taken_.load(order) ? 1 : 0;
    }

    // Records every write up to `number` as taken. Never moves back, so a
    // late record of an older frame cannot hide a newer one.
    void takeUpTo(uint32_t number);

private:
    const std::atomic<uint32_t>& written_;
    std::atomic<uint32_t> taken_{0};
};

class Mailbox {
public:
    static constexpr uint32_t capacity = 2048;

    enum class Taker { status, exchange };

    // Copies `count` bytes in (at most `capacity`), sets `length` and
    // numbers the write. `tag` travels with the message: the reader's count
    // of frames sent when it arrived.
    void write(const uint8_t* data, uint32_t count, uint32_t tag = 0);

    // Copies `length` bytes to `destination`, which holds `capacity` bytes,
    // records the frame as taken by `taker` and returns the length; the
    // message's tag goes to `tag` and its write number to `number` if given.
    uint32_t read(uint8_t* destination, uint32_t* tag = nullptr, Taker taker = Taker::status,
                  uint32_t* number = nullptr);

    // The waiting exchange forgets every frame written so far: none of them
    // may pass for the answer to its next command.
    void clearArrived() { arrived.takeUpTo(written_.load(std::memory_order_acquire)); }
    // Forgets for the exchange the frames up to `number` only.
    void clearArrivedUpTo(uint32_t number) { arrived.takeUpTo(number); }

    uint16_t flag(bool selectArrived) const { return selectArrived ? arrived.load() : unread.load(); }

    std::atomic<uint32_t> length{0};

private:
    std::atomic<uint32_t> written_{0};

public:
    // The status thread's place and the waiting exchange's.
    MailboxMark unread{written_};
    MailboxMark arrived{written_};

private:
    struct Frame {
        std::atomic<uint32_t> words[capacity / 4];
        std::atomic<uint32_t> tag;
        std::atomic<uint32_t> number;
    };
    SequenceCounted<Frame> frame_;
};
