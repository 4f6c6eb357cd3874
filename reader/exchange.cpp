// Command exchange. The slots of a rack share one bus, so the command goes
// through the reader's outgoing mailbox and the rack's send queue; the
// exchange then waits, first for the frame to leave and then for the answer
// to stand in the incoming mailbox. The slot's acknowledge frees the bus
// while the card works, so exchanges with different slots overlap.
#include "reader/exchange.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "link/rack_frame.h"
#include "platform/clock.h"
#include "reader/mailbox.h"
#include "reader/reader.h"

namespace {

// The write wait: 120 s in all, as long as its 120,000 passes of 1 ms
// took when it polled. While it waits, one "waiting for send" a second.
constexpr uint32_t kWriteWaitMs = 120000;
constexpr uint32_t kWriteTraceEveryMs = 1000;
// The answer wait, in whole seconds of the tick counter.
constexpr uint32_t kAnswerWaitSeconds = 40;
// Head and checksum of a short frame: 0x55, address, length, status, and
// the checksum at the end. The extended form has one head byte more.
constexpr uint32_t kShortFrameOverhead = 5;
constexpr uint32_t kShortDataOffset = 4;
constexpr uint32_t kExtendedDataOffset = 5;

// Waits for the frame in the outgoing mailbox to leave. False if it did
// not within the write wait. The thread sleeps until the frame is written:
// Reader::send wakes it. A thread queued behind the other slots of a busy
// rack used to wake every millisecond and trace each pass, which with tens
// of queued threads took more processor than the exchanges themselves and
// grew the log by megabytes a second; now the trace shows one
// "waiting for send" when the wait begins and one for every second it
// lasts, so a thread stuck in the queue still shows in the log. Other wakes
// of the reader's signal (a frame from the slot, a turn given back) sleep
// on to the same second.
// It also ends, with false, when the write of the frame failed (the count
// of the reader's failed writes moved on from `failuresBefore`) or the
// reader became unavailable: no answer can come then.
bool sendCannotComplete(const Reader* reader, uint32_t failuresBefore)
{
    return reader->sendFailures() != failuresBefore || !reader->available();
}

bool waitForSend(Reader* reader, uint32_t failuresBefore)
{
    const platform::Signal::Deadline limit = platform::Signal::deadlineIn(kWriteWaitMs);
    while (reader->hasSent() == 0) {
        if (sendCannotComplete(reader, failuresBefore)) return false;
        if (platform::Signal::reached(limit)) return false;
        logWrite("waiting for send\n");
        const platform::Signal::Deadline traceAgain =
            platform::Signal::earlier(platform::Signal::deadlineIn(kWriteTraceEveryMs), limit);
        for (;;) {
            const uint32_t seen = reader->activity.generation();
            if (reader->hasSent() != 0) return true;
            if (sendCannotComplete(reader, failuresBefore)) return false;
            if (!reader->activity.waitUntil(seen, traceAgain)) break;
        }
    }
    return true;
}

// Waits for the answer, asleep between tests: the reader's signal wakes it
// when a frame lands in the incoming mailbox, and when the card leaves. This wait is the one place
// where an exchange learns of its answer. The clock is the tick counter in
// whole seconds, so the wait ends when 40 second boundaries have been
// crossed since the start: 39 to 40 s. The count of boundaries comes from
// the start's phase within its second and the unsigned millisecond
// difference, so the wait also ends across the 32-bit wrap of the counter.
// Without a wake it sleeps exactly until the last boundary. `lastTick`
// receives the last reading of the clock.
enum class AnswerWait { answered, timedOut, cardGone };

AnswerWait waitForAnswer(Reader* reader, uint32_t cardEvents, uint32_t& lastTick)
{
    const uint32_t start = platform::tickCount();
    const uint64_t startPhase = start % 1000;
    constexpr uint64_t limitMs = kAnswerWaitSeconds * 1000ull;
    lastTick = start;
    for (;;) {
        const uint32_t seen = reader->activity.generation();
        if (reader->mailboxFull(false, true) != 0) return AnswerWait::answered;
        // A card change wakes the reader's signal too.
        if (reader->eventCount() != cardEvents) return AnswerWait::cardGone;
        lastTick = platform::tickCount();
        const uint64_t reachedMs = startPhase + static_cast<uint32_t>(lastTick - start);
        if (reachedMs / 1000 >= kAnswerWaitSeconds) return AnswerWait::timedOut;
        reader->activity.wait(seen, static_cast<uint32_t>(limitMs - reachedMs));
    }
}

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
        const uint32_t seen = reader.activity.generation();
        if (reader.eventCount() != cardEvents) return;
        if (!reader.activity.waitUntil(seen, limit)) return;
    }
}

// A frame of status 1 (no card) or 3 (mute) is what a slot sends when the
// card has left or stopped answering; it carries no answer.
bool tellsOfLostCard(const uint8_t* frame)
{
    const uint8_t status = frameStatus(frame);
    return frame[3] != RackFrame::extendedMarker && (status == 1 || status == 3);
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
    rack.forwardToReader(&reader, command, length, Rack::Direction::toReader);
    logWrite("Finished write\n");

    if (!waitForSend(&reader, failuresBefore)) {
        // The caller gives up: its turn leaves the send queue, so that the
        // frame never goes out after the host has been told it did not.
        rack.withdrawTurns(&reader);
        rack.unlockIfHeldBy(reader.address);
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
                 decimalText(static_cast<uint32_t>(reader.outgoing.unread.load())) + " and reader is " +
                 decimalText(reader.blocked.load()) + "\n");
        result.outcome = ExchangeOutcome::notSent;
        return result;
    }
    logWrite("Has sent\n");

    uint32_t lastTick = 0;
    const AnswerWait wait = waitForAnswer(&reader, cardEvents, lastTick);
    reader.blocked.store(0);

    if (wait == AnswerWait::cardGone) {
        rack.unlockIfHeldBy(reader.address);
        logWrite(reader.name + " Card gone\n");
        result.outcome = reader.available() ? ExchangeOutcome::cardGone : ExchangeOutcome::readerGone;
    } else if (wait == AnswerWait::timedOut) {
        rack.unlockIfHeldBy(reader.address);
        logWrite(reader.name + " Timeout - " + decimalText(lastTick / 1000) + "uSec\n");
        result.outcome = ExchangeOutcome::noAnswer;
    } else {
        uint8_t frame[Mailbox::capacity] = {};
        uint32_t frameNumber = 0;
        const uint32_t frameLength = reader.readMailbox(false, frame, nullptr, Mailbox::Taker::exchange, &frameNumber);
        // Marked before the turn is given back: the status thread, which
        // reads every frame, then never takes the answer's data for an ATR.
        reader.markAnswer(frameNumber);
        uint32_t dataLength = 0;
        uint32_t offset = 0;
        locateAnswer(frameLength, dataLength, offset);
        result.outcome = ExchangeOutcome::answered;
        if (tellsOfLostCard(frame)) {
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
            rack.unlockIfHeldBy(reader.address);
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
