#include "reader/reader.h"

#include <cstdlib>
#include <cstring>

#include "diag/text.h"
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

void Reader::putOutgoing(const uint8_t* frame, uint32_t size)
{
    hasSent_.store(0, std::memory_order_release);
    outgoing_.write(frame, size);
}

uint32_t Reader::takeOutgoing(uint8_t* destination) { return outgoing_.read(destination); }

void Reader::noteSent()
{
    hasSent_.store(1, std::memory_order_release);
    activity_.notify();
}

void Reader::noteSendFailed()
{
    sendFailures_.fetch_add(1, std::memory_order_acq_rel);
    activity_.notify();
}

void Reader::putIncoming(const uint8_t* frame, uint32_t size, bool tellsOfLostCard)
{
    // The mailbox is one frame deep. A frame that told of a lost card and
    // that the status thread has not taken yet is about to be replaced (a
    // card taken out and put back within one pass of the status thread):
    // it is counted, so that the removal still counts as a card event.
    if (lastTellsOfLostCard_.load(std::memory_order_relaxed) && incoming_.unread.load() != 0)
        replacedRemovals_.fetch_add(1, std::memory_order_acq_rel);
    lastTellsOfLostCard_.store(tellsOfLostCard, std::memory_order_relaxed);
    incoming_.write(frame, size, framesSent_.load(std::memory_order_acquire));
    activity_.notify();
}

uint32_t Reader::takeReplacedRemovals() { return replacedRemovals_.exchange(0, std::memory_order_acq_rel); }

uint32_t Reader::takeIncoming(uint8_t* destination, Mailbox::Taker taker, uint32_t* tag, uint32_t* number)
{
    return incoming_.read(destination, tag, taker, number);
}

uint32_t Reader::wideName(std::wstring& out) const
{
    out.assign(name.begin(), name.end());
    return 0;
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
        if (frameNumber == kAllFrames) clearIncoming(); else incoming_.clearArrivedUpTo(frameNumber);
    }
    cardEvents().notify();
    // An exchange waiting on this slot learns at once that its card went.
    if (changed) activity_.notify();
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
    outgoing_.read(dropped);
    incoming_.read(dropped);
    clearIncoming();
    // Runs on the receive thread, whose alone these are: no removal from
    // before the loss is counted after it.
    lastTellsOfLostCard_.store(false, std::memory_order_relaxed);
    replacedRemovals_.store(0, std::memory_order_release);
    blocked_.store(0, std::memory_order_release);
    cardEvents().notify();
    activity_.notify();
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
        const uint32_t seen = activity_.generation();
        uint32_t free = 0;
        if (turn_.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
        activity_.wait(seen, kRecheckMs);
    }
}

void Reader::giveTurn()
{
    turn_.store(0, std::memory_order_release);
    activity_.notify();
}
