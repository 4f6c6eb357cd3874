// Command exchange. The slots of a rack share one bus, so the command goes
// through the reader's outgoing mailbox and the rack's send queue; the
// exchange then waits, first for the frame to leave and then for the answer
// to stand in the incoming mailbox. The slot's acknowledge frees the bus
// while the card works, so exchanges with different slots overlap.
#include "link/exchange.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "link/rack_frame.h"
#include "link/slot_waits.h"
#include "platform/signal.h"
#include "reader/reader.h"

namespace {

// The answer wait, in whole seconds of the tick counter: it ends when 40
// second boundaries have been crossed since the start, 39 to 40 s.
constexpr uint32_t kAnswerWaitSeconds = 40;
// Head and checksum of a short frame: 0x55, address, length, status, and
// the checksum at the end. The extended form has one head byte more.
constexpr uint32_t kShortFrameOverhead = 5;
constexpr uint32_t kShortDataOffset = 4;
constexpr uint32_t kExtendedDataOffset = 5;

// The data of an answer frame: its length and where it starts. A frame
// with more than 255 data bytes came in the extended form, whose length
// takes one head byte more.
void locateAnswer(uint32_t frameLength, uint32_t& dataLength, uint32_t& offset)
{
    dataLength = frameLength > kShortFrameOverhead ? frameLength - kShortFrameOverhead : 0;
    if (dataLength > 255) dataLength -= 1;
    offset = dataLength > 255 ? kExtendedDataOffset : kShortDataOffset;
}

// Waits until the reader's card event count has moved past `cardEvents`:
// the status thread's pass is 5 ms; the bound only keeps a slot that reports
// a card it never had (a direct connection to an empty slot) from holding
// the caller.
constexpr uint32_t kCardEventWaitMs = 1000;

void waitForCardEvent(Reader& reader, uint32_t cardEvents)
{
    const platform::Signal::Deadline limit = platform::Signal::deadlineIn(kCardEventWaitMs);
    for (;;) {
        const uint32_t seen = reader.activitySeen();
        if (reader.eventCount() != cardEvents) return;
        if (!reader.awaitActivity(seen, limit)) return;
    }
}

}  // namespace

ExchangeResult exchange(Rack& rack, Reader& reader, const uint8_t* command, uint32_t length, uint8_t* answer,
                        uint32_t capacity, uint32_t cardEvents)
{
    logWrite(reader.name + " Transmit - " + tracedBytes(TracedBytes::command, command, static_cast<int32_t>(length)) + "\n");
    // One exchange with the slot at a time: a second host thread on the
    // same reader would share its mailboxes and could take this answer.
    ReaderTurn turn(&reader);
    ExchangeResult result;
    if (!reader.available()) {
        result.outcome = ExchangeOutcome::readerGone;
        return result;
    }
    const uint32_t failuresBefore = reader.sendFailures();
    rack.sendCommand(&reader, command, length);
    logWrite("Finished write\n");

    if (!waitForFrameToLeave(reader, failuresBefore, SendWaitTrace::everySecond)) {
        // The caller gives up: its turn leaves the send queue, so that the
        // frame never goes out after the host has been told it did not.
        rack.withdrawTurns(&reader);
        rack.releaseLock(&reader);
        if (!reader.available()) {
            logWrite(reader.name + " : reader gone\n");
            result.outcome = ExchangeOutcome::readerGone;
            return result;
        }
        if (reader.sendFailures() != failuresBefore) {
            logWrite(reader.name + " : write failed\n");
            result.outcome = ExchangeOutcome::writeFailed;
            return result;
        }
        logWrite(reader.name + " : too long waiting for write the rack lock is " +
                 decimalText(static_cast<uint32_t>(rack.isLocked() ? 1 : 0)) + " msg buffer is " +
                 decimalText(static_cast<uint32_t>(reader.outgoingWaiting() ? 1 : 0)) + " and reader is " +
                 decimalText(reader.blocked()) + "\n");
        result.outcome = ExchangeOutcome::notSent;
        return result;
    }
    logWrite("Has sent\n");

    ReplyWatch watch;
    watch.limit = ReplyLimit::wholeTickSeconds(kAnswerWaitSeconds);
    watch.endOnCardEvent = true;
    watch.cardEvents = cardEvents;
    SlotReply reply;
    waitForSlotReply(reader, watch, reply);
    reader.setBlocked(false);

    if (reply.outcome == SlotReply::Outcome::gone) {
        rack.releaseLock(&reader);
        logWrite(reader.name + " Card gone\n");
        result.outcome = reader.available() ? ExchangeOutcome::cardGone : ExchangeOutcome::readerGone;
    } else if (reply.outcome == SlotReply::Outcome::timedOut) {
        rack.releaseLock(&reader);
        logWrite(reader.name + " Timeout - " + decimalText(reply.lastTick / 1000) + "uSec\n");
        result.outcome = ExchangeOutcome::noAnswer;
    } else {
        const uint8_t* frame = reply.frame;
        const uint32_t frameLength = reply.length;
        // Marked before the turn is given back: the status thread, which
        // reads every frame, then never takes the answer's data for an ATR.
        reader.markAnswer(reply.number);
        uint32_t dataLength = 0;
        uint32_t offset = 0;
        locateAnswer(frameLength, dataLength, offset);
        result.outcome = ExchangeOutcome::answered;
        if (frameTellsOfLostCard(frame, frameLength)) {
            logWrite(reader.name + " Card gone\n");
            reader.clearIncoming();
            // The status thread takes the same frame and counts the card
            // event; the caller learns of the lost card only once it has,
            // so that its next call is refused too.
            waitForCardEvent(reader, cardEvents);
            result.outcome = ExchangeOutcome::cardGone;
            return result;
        }
        if (dataLength == 0) {
            // A frame without data ends the exchange like a time-out. The
            // trace has no line end; the answer line runs on behind it.
            rack.releaseLock(&reader);
            logWrite(reader.name + " 1C/1D Timeout");
            result.outcome = ExchangeOutcome::noAnswer;
        }
        // An answer longer than the caller's buffer: what fits is
        // delivered and the full length reported. Nothing goes past the
        // buffer.
        const uint32_t delivered = std::min<uint32_t>(dataLength, capacity);
        std::memcpy(answer, frame + offset, delivered);
        if (dataLength > capacity) result.outcome = ExchangeOutcome::answerTooLong;
        logWrite(reader.name + " Answer - " + tracedBytes(TracedBytes::answer, answer, static_cast<int32_t>(delivered)) + "\n");
        result.answerLength = dataLength;
    }

    reader.clearIncoming();
    return result;
}
