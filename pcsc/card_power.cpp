#include "pcsc/card_power.h"

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/signal.h"
#include "reader/mailbox.h"
#include "reader/reader.h"

namespace {

// The slot's answer to a protocol selection is bounded by this, counted
// from the moment the selection went out.
constexpr uint32_t kReplyWaitMs = 17000;
// How long the selection may wait for the bus, as a command's does.
constexpr uint32_t kSendWaitMs = 120000;

// Waits until the selection has been written to the link. A selection that
// gave up while it still stood in the send queue would go out later, take
// the bus and, from a silent slot, keep it for good.
// A write that failed, or a reader that went unavailable, ends it at once.
bool waitForSent(Reader& reader, uint32_t failuresBefore)
{
    const platform::Signal::Deadline limit = platform::Signal::deadlineIn(kSendWaitMs);
    for (;;) {
        const uint32_t seen = reader.activity.generation();
        if (reader.hasSent() != 0) return true;
        if (reader.sendFailures() != failuresBefore || !reader.available()) return false;
        if (!reader.activity.waitUntil(seen, limit)) return reader.hasSent() != 0;
    }
}

// Waits for a frame from the slot that came after the frame numbered
// `ourFrame` took the bus. Every incoming frame carries the slot's count of
// frames sent at its arrival, so one stored before our frame went out is an
// answer to something earlier: it is taken, forgotten and waited past.
bool waitForAnswerTo(Reader& reader, uint32_t ourFrame)
{
    const platform::Signal::Deadline limit = platform::Signal::deadlineIn(kReplyWaitMs);
    for (;;) {
        const uint32_t seen = reader.activity.generation();
        if (!reader.available()) return false;
        if (reader.mailboxFull(false, true) != 0) {
            uint8_t frame[Mailbox::capacity];
            uint32_t sentWhenStored = 0;
            reader.readMailbox(false, frame, &sentWhenStored, Mailbox::Taker::exchange);
            if (static_cast<int32_t>(sentWhenStored - ourFrame) >= 0) return true;
            logWrite(reader.name + " stale answer passed over\n");
            continue;
        }
        if (!reader.activity.waitUntil(seen, limit)) return reader.mailboxFull(false, true) != 0;
    }
}

}  // namespace

bool powerCard(Rack& rack, Reader& reader, uint32_t activeProtocol)
{
    if (!rack.connected()) return false;
    ReaderTurn turn(&reader);
    // The API numbers protocols T + 1; the reader keeps the T number. An
    // active protocol of 0 leaves 0xFFFFFFFF, which the select message
    // treats as T=0.
    const uint32_t tNumber = activeProtocol - 1;
    logWrite("Connecting with prot T" + decimalText(tNumber) + "\n");
    reader.setProtocol(tNumber);
    // The turn keeps every other host call off this slot, so the next frame
    // the slot is given the bus for is ours.
    const uint32_t ourFrame = reader.framesSent.load(std::memory_order_acquire) + 1;
    const uint32_t failuresBefore = reader.sendFailures();
    rack.selectProtocol(&reader);
    const bool answered = waitForSent(reader, failuresBefore) && waitForAnswerTo(reader, ourFrame);
    if (!answered) rack.withdrawTurns(&reader);
    if (!answered) logWrite(reader.name + " no answer to the protocol selection\n");
    rack.unlockIfHeldBy(reader.address);
    reader.clearIncoming();
    return answered;
}
