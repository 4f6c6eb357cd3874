// Puts the byte stream from a rack together into whole frames. It owns the
// reassembly buffer, the search for the sync byte, the size rules and the
// decision to give up a frame at the head of the buffer. It has no thread
// and no device: the receive loop reads the device and hands the bytes
// over, and every whole frame goes to the handler given at construction.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

class FrameAssembler {
public:
    using FrameHandler = std::function<void(const uint8_t* frame, uint32_t size)>;

    static constexpr uint32_t capacity = 2048;
    // No read is made while this many bytes or more are held.
    static constexpr uint32_t readLimit = 1000;
    static constexpr uint32_t largestRead = 512;
    // The largest frame the buffer is meant to assemble: 999 bytes held and
    // a full read behind them.
    static constexpr uint32_t largestFrame = readLimit - 1 + largestRead;
    // A frame larger than this is handed on in place instead of in a copy.
    static constexpr uint32_t scratchSize = 1024;
    // How long the link must be quiet before an unfinished frame is given up.
    static constexpr int64_t quietLimitMs = 1000;

    explicit FrameAssembler(FrameHandler handler) : handler_(std::move(handler)) {}

    // How many of the bytes waiting in the device to read now; 0 for none.
    uint32_t bytesToRead(uint32_t waiting) const;
    // Appends bytes read from the device; at most bytesToRead() of them.
    void append(const uint8_t* bytes, uint32_t count);
    // Passes over what is held until one changes nothing: every whole
    // frame held is handed on.
    void parse();

    // Forgets every byte held: the link was opened afresh.
    void restart() { clear(); }
    // The link was seen with bytes waiting at `nowMs` (wall clock).
    void linkSeen(int64_t nowMs) { lastRxTime_ = nowMs; }
    // Whether the frame at the head must be given up at `nowMs`, with
    // `waiting` bytes in the device's queue.
    bool shouldGiveUp(int64_t nowMs, uint32_t waiting) const;
    // Gives up the frame at the head ("messages confused, fixing") and
    // parses what the search finds behind it.
    void giveUp();

    const uint8_t* held() const { return rxMsg_; }
    uint32_t heldCount() const { return rxMsgLastIndexOf_; }

private:
    // One pass: the sync search, or the frames at the head.
    void parseOnce();
    void searchSync();
    void handOnSeveralFrames();
    void clear();

    FrameHandler handler_;
    uint8_t rxMsg_[capacity] = {};
    uint32_t rxMsgLastIndexOf_ = 0;
    // The size of the frame at the head as last worked out. Only emptying
    // the buffer resets it: the steps that merely move bytes keep it, and
    // the quiet-link watchdog looks at it.
    uint32_t expectedLength_ = 0;
    int64_t lastRxTime_ = 0;
};
