#include "link/frame_assembler.h"

#include <cstring>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack_frame.h"

// None while 1,000 or more bytes are held, which keeps the buffer from
// overflowing. But the device hands bytes over in whatever pieces it has, so
// a frame that fits the buffer could be left short of its end with 1,000
// bytes held and never complete; such a frame gets a read of just its
// missing bytes, which the buffer always has room for.
uint32_t FrameAssembler::bytesToRead(uint32_t waiting) const
{
    if (waiting == 0) return 0;
    if (rxMsgLastIndexOf_ < readLimit) return waiting > largestRead ? largestRead : waiting;
    if (rxMsg_[0] != RackFrame::sync || rxMsgLastIndexOf_ <= 3) return 0;
    uint32_t size = receivedFrameSize(rxMsg_);
    if (size > largestFrame || size <= rxMsgLastIndexOf_) return 0;
    uint32_t missing = size - rxMsgLastIndexOf_;
    return waiting > missing ? missing : waiting;
}

void FrameAssembler::append(const uint8_t* bytes, uint32_t count)
{
    if (count > capacity - rxMsgLastIndexOf_) count = capacity - rxMsgLastIndexOf_;
    std::memcpy(rxMsg_ + rxMsgLastIndexOf_, bytes, count);
    rxMsgLastIndexOf_ += count;
}

void FrameAssembler::parseOnce()
{
    if (!(rxMsg_[0] == RackFrame::sync && rxMsgLastIndexOf_ > 3)) {
        // What the search brings to the head is left for the next pass.
        if (rxMsg_[0] != RackFrame::sync) searchSync();
        return;
    }

    expectedLength_ = receivedFrameSize(rxMsg_);
    if (rxMsgLastIndexOf_ == expectedLength_) {
        // Handed on in place: the buffer holds still until the handler
        // returns, and is emptied afterwards.
        handler_(rxMsg_, expectedLength_);
        clear();
        return;
    }
    if (rxMsgLastIndexOf_ < expectedLength_) return;
    handOnSeveralFrames();
}

// A pass that drops stray bytes, or keeps bytes behind a whole frame, ends
// without parsing what it brought to the head of the buffer. Left there, a
// whole frame would wait for the next bytes from the rack: an answer behind
// a few stray bytes would miss its exchange and be handed to the slot's next
// one. So passes go on while they change what is held, and every whole frame
// held is handed on in the poll that brought it. A pass that changes nothing
// would change nothing if repeated, so stopping there loses nothing.
void FrameAssembler::parse()
{
    for (;;) {
        uint32_t before = rxMsgLastIndexOf_;
        if (before == 0) return;
        parseOnce();
        if (rxMsgLastIndexOf_ == before) return;
    }
}

// Drops bytes one at a time until a sync byte leads or nothing is held.
void FrameAssembler::searchSync()
{
    while (rxMsgLastIndexOf_ > 0 && rxMsg_[0] != RackFrame::sync) {
        std::memmove(rxMsg_, rxMsg_ + 1, rxMsgLastIndexOf_ - 1);
        --rxMsgLastIndexOf_;
        rxMsg_[rxMsgLastIndexOf_] = 0;
    }
}

// More bytes are held than the head frame needs: hand on every whole frame
// in order, then keep what is left at the head of the buffer.
void FrameAssembler::handOnSeveralFrames()
{
    logWrite("Greater Than Expected Message Length\n");
    uint32_t offset = 0;
    uint8_t scratch[scratchSize];
    do {
        std::memset(scratch, 0, sizeof scratch);
        if (rxMsg_[offset] != RackFrame::sync) break;
        uint32_t size = receivedFrameSize(rxMsg_ + offset);
        if (rxMsgLastIndexOf_ - offset < size) {
            logWrite("2ND MESSAGE NOT COMPLETE\n");
            break;
        }
        if (size <= scratchSize) {
            std::memcpy(scratch, rxMsg_ + offset, size);
            handler_(scratch, size);
        } else {
            // Too large for the scratch copy: handed on in place, since the
            // buffer holds still until the handler returns.
            handler_(rxMsg_ + offset, size);
        }
        offset += size;
        logWrite("MSGOFF: " + decimalText(offset) + ",rxMsgLastIndexOf: " + decimalText(rxMsgLastIndexOf_) + "\n");
    } while (offset != rxMsgLastIndexOf_);

    if (offset == rxMsgLastIndexOf_) {
        clear();
        return;
    }
    // The bytes behind the new end stay as they were. A size worked out
    // over them is one of fewer than five held bytes, and any frame is
    // longer than that, so they never change an outcome.
    logWrite("Should copy bytes back\n");
    std::memmove(rxMsg_, rxMsg_ + offset, rxMsgLastIndexOf_ - offset);
    rxMsgLastIndexOf_ -= offset;
}

void FrameAssembler::clear()
{
    rxMsgLastIndexOf_ = 0;
    std::memset(rxMsg_, 0, sizeof rxMsg_);
    expectedLength_ = 0;
}

bool FrameAssembler::shouldGiveUp(int64_t nowMs, uint32_t waiting) const
{
    // A frame larger than the buffer can assemble never completes, and its
    // bytes that keep coming would keep the quiet-link watchdog from ever
    // firing. Once reading has stopped for it, it is given up at once.
    if (rxMsgLastIndexOf_ >= readLimit && rxMsg_[0] == RackFrame::sync && receivedFrameSize(rxMsg_) > largestFrame)
        return true;

    // The watchdog is for a link that is really quiet. A receive thread that
    // comes back late (descheduled for seconds on a loaded machine) finds the
    // rest of its frame waiting in the device's queue: that frame is read,
    // not given up, or its data bytes would be taken for frames.
    if (waiting > 0) return false;
    return nowMs - lastRxTime_ > quietLimitMs && expectedLength_ != 0 && rxMsgLastIndexOf_ != 0 &&
           expectedLength_ != rxMsgLastIndexOf_;
}

// The head byte is zeroed rather than removed: it then reads as one more
// stray byte, and the ordinary sync search drops it together with
// everything up to the next sync byte, the way it drops stray bytes anywhere.
// The parse that follows hands on what the search brought to the head.
void FrameAssembler::giveUp()
{
    logWrite("messages confused, fixing\n");
    rxMsg_[0] = 0;
    parse();
}
