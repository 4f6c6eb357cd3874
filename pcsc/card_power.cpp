#include "pcsc/card_power.h"

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "link/slot_waits.h"
#include "reader/reader.h"

namespace {

// The slot's answer to a protocol selection is bounded by this, counted
// from the moment the selection went out.
constexpr uint32_t kReplyWaitMs = 17000;

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
    ReplyWatch watch;
    watch.limit = ReplyLimit::milliseconds(kReplyWaitMs);
    watch.onlyAnswerTo = true;
    watch.ourFrame = reader.framesSent() + 1;
    const uint32_t failuresBefore = reader.sendFailures();
    rack.selectProtocol(&reader);
    // A selection that gave up while it still stood in the send queue
    // would go out later, take the bus and, from a silent slot, keep it for
    // good: it waits for its write as a command does, without a trace.
    bool answered = waitForFrameToLeave(reader, failuresBefore, SendWaitTrace::silent);
    if (answered) {
        SlotReply reply;
        waitForSlotReply(reader, watch, reply);
        answered = reply.outcome == SlotReply::Outcome::arrived;
    }
    if (!answered) rack.withdrawTurns(&reader);
    if (!answered) logWrite(reader.name + " no answer to the protocol selection\n");
    rack.releaseLock(&reader);
    reader.clearIncoming();
    return answered;
}
