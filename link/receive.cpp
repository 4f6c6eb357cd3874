// The receive thread: polls the device every 5 ms, puts the byte stream
// together in the reassembly buffer and hands every whole frame to
// handleFrame. Only this thread reads from the link and touches rxMsg,
// rxMsgLastIndexOf, expectedLength and lastRxTime.
#include <cstring>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/clock.h"

namespace {

constexpr uint32_t kPollMs = 5;
constexpr int64_t kWatchdogMs = 1000;
constexpr uint32_t kReadLimit = 1000;  // no read while this many bytes are held
constexpr uint32_t kLargestRead = 512;
constexpr uint32_t kScratchSize = 1024;
// The largest frame the buffer is meant to assemble: 999 bytes held and a
// full read behind them.
constexpr uint32_t kLargestFrame = kReadLimit - 1 + kLargestRead;

}  // namespace

void Rack::receiveLoop()
{
    lastRxTime = platform::wallClockMs();
    uint32_t waiting = 0;
    while (!stopping()) {
        platform::pauseMs(kPollMs);
        int64_t now = platform::wallClockMs();

        bool quietTooLong = now - lastRxTime > kWatchdogMs && expectedLength != 0 && rxMsgLastIndexOf != 0 &&
                            expectedLength != rxMsgLastIndexOf;
        // A frame larger than the buffer can assemble never completes, and
        // its bytes that keep coming would keep the quiet-link watchdog from
        // ever firing. Once reading has stopped for it, it is given up at
        // once, the way the watchdog gives one up.
        bool cannotComplete = rxMsgLastIndexOf >= kReadLimit && rxMsg[0] == RackFrame::sync &&
                              receivedFrameSize(rxMsg) > kLargestFrame;
        if (quietTooLong || cannotComplete) {
            logWrite("messages confused, fixing\n");
            rxMsg[0] = 0;
            receiveBytes(0);
            receiveBytes(0);
            parseWhatIsHeld();
        }

        // A failed status call must not leave the loop acting on the count
        // of an earlier poll, so the count starts from 0 on every poll.
        waiting = 0;
        FT_GetQueueStatus(ftHandle, &waiting);
        if (waiting > 0) {
            lastRxTime = now;
            receiveBytes(waiting);
            parseWhatIsHeld();
        }
    }
}

// How many of the waiting bytes to read. None while 1,000 or more are held,
// which keeps the buffer from overflowing; but reads come in whatever
// pieces the device hands over, so a frame that fits the buffer could be
// left short of its end with 1,000 bytes held and never complete. Such a
// frame gets a read of just its missing bytes, which the buffer always has
// room for.
uint32_t Rack::bytesToRead(uint32_t waiting) const
{
    if (waiting == 0) return 0;
    if (rxMsgLastIndexOf < kReadLimit) return waiting > kLargestRead ? kLargestRead : waiting;
    if (rxMsg[0] != RackFrame::sync || rxMsgLastIndexOf <= 3) return 0;
    uint32_t size = receivedFrameSize(rxMsg);
    if (size > kLargestFrame || size <= rxMsgLastIndexOf) return 0;
    uint32_t missing = size - rxMsgLastIndexOf;
    return waiting > missing ? missing : waiting;
}

void Rack::receiveBytes(uint32_t waiting)
{
    uint32_t wanted = bytesToRead(waiting);
    if (wanted > 0) {
        uint8_t chunk[kLargestRead] = {};
        uint32_t got = 0;
        FT_Read(ftHandle, chunk, wanted, &got);
        if (got > wanted) got = wanted;  // never trust a count beyond the request
        std::memcpy(rxMsg + rxMsgLastIndexOf, chunk, got);
        rxMsgLastIndexOf += got;
        logWrite("Received " + decimalText(rxMsgLastIndexOf) + " bytes from rack " + serial + ": " +
                 tracedBytes(TracedBytes::frame, rxMsg, static_cast<int32_t>(rxMsgLastIndexOf)) + "\n");
    }

    if (!(rxMsg[0] == RackFrame::sync && rxMsgLastIndexOf > 3)) {
        if (rxMsg[0] != RackFrame::sync) {
            // Sync search: drop bytes one at a time until a sync byte leads.
            // What it brings to the head is parsed at the next call.
            while (rxMsgLastIndexOf > 0 && rxMsg[0] != RackFrame::sync) {
                std::memmove(rxMsg, rxMsg + 1, rxMsgLastIndexOf - 1);
                --rxMsgLastIndexOf;
                rxMsg[rxMsgLastIndexOf] = 0;
            }
        }
        return;
    }

    expectedLength = receivedFrameSize(rxMsg);

    if (rxMsgLastIndexOf == expectedLength) {
        rxMsgLastIndexOf = 0;
        handleFrame(rxMsg, expectedLength);
        rxMsgLastIndexOf = 0;
        std::memset(rxMsg, 0, sizeof rxMsg);
        expectedLength = 0;
        return;
    }
    if (rxMsgLastIndexOf < expectedLength) return;

    receiveSeveralFrames();
}

// A pass that dropped stray bytes, or kept bytes behind a whole frame, ends
// without parsing what it brought to the head of the buffer. Left there, a
// whole frame would wait for the next bytes from the rack: an answer behind
// a few stray bytes would miss its exchange and be handed to the slot's next
// one. Passes without a read go on while they make progress, so every whole
// frame held is dispatched in the poll that brought it.
void Rack::parseWhatIsHeld()
{
    for (;;) {
        uint32_t held = rxMsgLastIndexOf;
        if (held == 0) return;
        receiveBytes(0);
        if (rxMsgLastIndexOf == held) return;
    }
}

// More bytes are held than the head frame needs: hand on every whole frame
// in order, then keep what is left at the head of the buffer.
void Rack::receiveSeveralFrames()
{
    logWrite("Greater Than Expected Message Length\n");
    uint32_t offset = 0;
    uint8_t scratch[kScratchSize];
    do {
        std::memset(scratch, 0, sizeof scratch);
        if (rxMsg[offset] != RackFrame::sync) break;
        uint32_t size = receivedFrameSize(rxMsg + offset);
        if (rxMsgLastIndexOf - offset < size) {
            logWrite("2ND MESSAGE NOT COMPLETE\n");
            break;
        }
        if (size <= kScratchSize) {
            std::memcpy(scratch, rxMsg + offset, size);
            handleFrame(scratch, size);
        } else {
            // Too large for the scratch copy: handed on in place. The
            // buffer belongs to this thread and holds still until
            // handleFrame returns.
            handleFrame(rxMsg + offset, size);
        }
        offset += size;
        logWrite("MSGOFF: " + decimalText(offset) + ",rxMsgLastIndexOf: " + decimalText(rxMsgLastIndexOf) + "\n");
    } while (offset != rxMsgLastIndexOf);

    if (offset == rxMsgLastIndexOf) {
        rxMsgLastIndexOf = 0;
        std::memset(rxMsg, 0, sizeof rxMsg);
        expectedLength = 0;
        return;
    }
    logWrite("Should copy bytes back\n");
    std::memmove(rxMsg, rxMsg + offset, rxMsgLastIndexOf - offset);
    rxMsgLastIndexOf -= offset;
}
