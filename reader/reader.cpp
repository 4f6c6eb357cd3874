#include "reader/reader.h"

#include <cstdlib>
#include <cstring>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack_frame.h"
#include "platform/clock.h"
#include "platform/global_order.h"

platform::Signal& cardEvents()
{
    // Never destroyed, so that a host thread still waiting while the
    // process ends finds it.
    static platform::Signal* signal = new platform::Signal;
    return *signal;
}

Reader::Reader(uint32_t address, std::string serial)
    : address(address), name("Tessel " + serial + " R" + decimalText(address))
{
}

void Reader::writeMailbox(bool toOutgoing, const uint8_t* data, uint32_t count)
{
    if (toOutgoing) {
        hasSent_.store(0, std::memory_order_release);
        // Room for the largest frame the host sends; a longer payload is cut
        // rather than written past the buffer.
        uint8_t work[RackFrame::largestOutgoing] = {};
        if (count > RackFrame::largestOutgoing - 4) count = RackFrame::largestOutgoing - 4;
        if (count == 0) return;
        std::memcpy(work, data, count);
        uint32_t size = wrapFrame(work, count, static_cast<uint8_t>(address));
        outgoing.write(work, size);
        return;
    }
    // The mailbox is one frame deep. A frame that told of a lost card and
    // that the status thread has not taken yet is about to be replaced (a
    // card taken out and put back within one pass of the status thread):
    // it is counted, so that the removal still counts as a card event.
    if (lastTellsOfLostCard_.load(std::memory_order_relaxed) && incoming.unread.load() != 0)
        replacedRemovals_.fetch_add(1, std::memory_order_acq_rel);
    const bool lostCard = count > 3 && data[3] != RackFrame::extendedMarker &&
                          (frameStatus(data) == kStatusNoCardByte || frameStatus(data) == kStatusMuteByte);
    lastTellsOfLostCard_.store(lostCard, std::memory_order_relaxed);
    incoming.write(data, count, framesSent.load(std::memory_order_acquire));
    activity.notify();
}

uint32_t Reader::takeReplacedRemovals() { return replacedRemovals_.exchange(0, std::memory_order_acq_rel); }

uint32_t Reader::readMailbox(bool fromOutgoing, uint8_t* destination, uint32_t* tag, Mailbox::Taker taker,
                             uint32_t* number)
{
    return fromOutgoing ? outgoing.read(destination, tag) : incoming.read(destination, tag, taker, number);
}

uint16_t Reader::mailboxFull(bool ofOutgoing, bool selectArrived) const
{
    if (ofOutgoing) return outgoing.flag(false);
    return incoming.flag(selectArrived);
}

uint32_t Reader::wideName(std::wstring& out) const
{
    out.assign(name.begin(), name.end());
    return 0;
}

FT_STATUS Reader::send(FT_HANDLE device)
{
    uint8_t frame[Mailbox::capacity] = {};
    uint32_t size = outgoing.read(frame);
    // Nothing longer than the largest outgoing frame is ever handed to the
    // device, whatever the mailbox says.
    if (size > RackFrame::largestOutgoing) size = RackFrame::largestOutgoing;

    int64_t before = platform::calendarSeconds();
    uint32_t written = 0;
    FT_STATUS status = FT_Write(device, frame, size, &written);
    int64_t after = platform::calendarSeconds();

    if (status != FT_OK) {
        logWrite("FT_Write failed - " + decimalText(static_cast<uint32_t>(status)));
        sendFailures_.fetch_add(1, std::memory_order_acq_rel);
        activity.notify();
        return status;
    }
    hasSent_.store(1, std::memory_order_release);
    activity.notify();
    logWrite(name + " Tx - " + tracedBytes(TracedBytes::frame, frame, static_cast<int32_t>(size)) + ": " +
             fixedText(static_cast<double>(after - before)) + "\n");
    return status;
}

// Only the frames up to the one that told of the change are forgotten: an
// answer that landed behind it is still the waiting exchange's.
void Reader::cardInserted(Atr value, uint32_t frameNumber) { changeCard(value, kStateCard, frameNumber); }

void Reader::cardRemoved(bool mute, uint32_t frameNumber)
{
    changeCard(Atr(), mute ? kStateMuteCard : kStateNoCard, frameNumber);
}

void Reader::changeCard(const Atr& value, uint32_t state, uint32_t frameNumber)
{
    const Atr before = atr_.load();
    const bool changed = cardState_.load(std::memory_order_acquire) != state || before.length != value.length ||
                         std::memcmp(before.bytes, value.bytes, value.length) != 0;
    atr_.store(value);
    cardState_.store(state, std::memory_order_release);
    // The status thread writes the card, and the receive thread when the
    // rack is lost: the count moves on by one for each.
    if (changed) eventCount_.fetch_add(1, std::memory_order_acq_rel);
    // A frame that changed the card is no answer for a waiting exchange; one
    // that only repeats what is known (the answer to a protocol selection
    // during a bring-up that never ends) may be.
    if (changed) {
        if (frameNumber == kAllFrames) clearIncoming(); else incoming.clearArrivedUpTo(frameNumber);
    }
    cardEvents().notify();
    // An exchange waiting on this slot learns at once that its card went.
    if (changed) activity.notify();
}

void Reader::markUnavailable()
{
    available_.store(false, std::memory_order_release);
    atr_.store(Atr());
    cardState_.store(kStateNoCard, std::memory_order_release);
    // Always an event, even for an empty slot: a direct connection to it
    // must learn that its reader went.
    eventCount_.fetch_add(1, std::memory_order_acq_rel);
    uint8_t dropped[Mailbox::capacity];
    outgoing.read(dropped);
    incoming.read(dropped);
    clearIncoming();
    // Runs on the receive thread, whose alone these are: no removal from
    // before the loss is counted after it.
    lastTellsOfLostCard_.store(false, std::memory_order_relaxed);
    replacedRemovals_.store(0, std::memory_order_release);
    blocked.store(0, std::memory_order_release);
    cardEvents().notify();
    activity.notify();
}

void Reader::markAvailable()
{
    if (available_.exchange(true, std::memory_order_acq_rel)) return;
    cardEvents().notify();
}

void Reader::takeTurn()
{
    // A turn held across a whole exchange can last 40 s; the limit only
    // bounds a wait whose wake-up went astray, and the test runs again.
    constexpr uint32_t kRecheckMs = 1000;
    for (;;) {
        const uint32_t seen = activity.generation();
        uint32_t free = 0;
        if (turn_.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
        activity.wait(seen, kRecheckMs);
    }
}

void Reader::giveTurn()
{
    turn_.store(0, std::memory_order_release);
    activity.notify();
}
