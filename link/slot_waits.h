// The two waits of a host thread that sends a frame to a slot: for the frame
// to leave (its turn in the send queue and the write to the link), and for
// the slot's reply in the incoming mailbox. The exchange of a card command
// and the protocol selection that powers a card both wait here; each sleeps
// on the reader's activity and re-tests after every wake.
#pragma once

#include <cstdint>

#include "platform/signal.h"
#include "reader/mailbox.h"

class Reader;

// Whether the wait for the frame to leave shows in the trace. A command's
// exchange traces "waiting for send" when it begins to wait and once for
// every further second, so that a thread stuck in the queue still shows in
// the log; a protocol selection waits without a trace.
enum class SendWaitTrace { silent, everySecond };

// Waits until the frame in the reader's outgoing mailbox has been written
// to the link: true then. False if it was not within the write wait
// (120 s on the library's clock), if a write of the slot's frames failed
// (the reader's count of failed writes moved on from `failuresBefore`) or
// if the reader became unavailable: no answer can come then.
bool waitForFrameToLeave(Reader& reader, uint32_t failuresBefore, SendWaitTrace trace);

// How long a reply wait lasts, on one of two clocks.
class ReplyLimit {
public:
    // Until `seconds` whole-second boundaries of the tick counter have been
    // crossed since the start: seconds - 1 to seconds. The count comes from
    // the start's phase within its second and the unsigned millisecond
    // difference, so the wait also ends across the 32-bit wrap of the
    // counter. Without a wake it sleeps exactly until the last boundary.
    static ReplyLimit wholeTickSeconds(uint32_t seconds);
    // Until `milliseconds` of the library's clock have passed.
    static ReplyLimit milliseconds(uint32_t milliseconds);

private:
    friend class ReplyClock;
    bool wholeSeconds_ = false;
    uint32_t amount_ = 0;
};

// What ends a reply wait besides the reply and the limit.
struct ReplyWatch {
    ReplyLimit limit;
    // With `endOnCardEvent`, the wait ends (gone) once the reader's card
    // event count moves past `cardEvents`: the card left, turned mute or was
    // swapped, or the reader went. Otherwise it ends early only when the
    // reader becomes unavailable.
    bool endOnCardEvent = false;
    uint32_t cardEvents = 0;
    // With `onlyAnswerTo`, a frame stored before the slot's frame number
    // `ourFrame` took the bus (Reader::framesSent() + 1, read before the
    // frame was queued) answers an earlier message: it is taken, traced as
    // passed over and waited past.
    bool onlyAnswerTo = false;
    uint32_t ourFrame = 0;
};

struct SlotReply {
    enum class Outcome { arrived, timedOut, gone };
    Outcome outcome = Outcome::timedOut;
    // The reply taken from the incoming mailbox (taker: the exchange), its
    // length and its write number; only when it arrived.
    uint8_t frame[Mailbox::capacity] = {};
    uint32_t length = 0;
    uint32_t number = 0;
    // The last reading of the tick counter (whole-second limits only).
    uint32_t lastTick = 0;
};

// Waits for the slot's reply, asleep between tests: the reader's activity
// wakes it when a frame lands in the incoming mailbox, when the card
// changes and when the reader goes. A frame that has arrived is taken
// before anything else is tested.
void waitForSlotReply(Reader& reader, const ReplyWatch& watch, SlotReply& reply);
