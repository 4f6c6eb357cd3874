// One card slot of a rack: what the PC/SC side calls a reader. It holds the
// slot's name, its card state and ATR with a count of card events, and the
// two mailboxes through which every message to and from the slot passes.
// Card handles belong to connections, which the PC/SC layer keeps.
// Created when the master reports the slot, never destroyed while the
// library runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/signal.h"
#include "platform/sync.h"
#include "platform/thread_safety.h"
#include "reader/atr.h"
#include "reader/mailbox.h"

// Wakes the host threads that wait in a status change: it is notified when
// a reader's card state changes, when a rack adds a reader or resets, and
// when a wait is cancelled. One for the whole process, because one status
// change call watches readers of any number of racks and can sleep on only
// one signal; such events are rare, so waking every status-change waiter
// for each costs little.
platform::Signal& cardEvents();

// Card states: the bit values of the open-source PC/SC headers.
enum : uint32_t {
    kStateNoCard = 0x02,
    kStateCard = 0x04,
    kStateMuteCard = 0x04 | 0x08,
};

class Reader {
public:
    Reader(uint32_t address, std::string serial);
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // The slot's address on its rack and the name the host lists it by.
    const uint32_t address;
    const std::string name;

    // The outgoing mailbox holds the one whole frame the slot is to be
    // sent next (the link frames it). Putting a frame there starts a new
    // send: hasSent() is 0 until the link reports it written.
    void putOutgoing(const uint8_t* frame, uint32_t size);
    // Takes the outgoing frame for the link to write; its length.
    uint32_t takeOutgoing(uint8_t* destination);
    bool outgoingWaiting() const { return outgoing_.unread.load() != 0; }
    // The link's word on the outgoing frame: written, or the write failed.
    // Either wakes the host thread that waits on the slot.
    void noteSent();
    void noteSendFailed();
    uint32_t hasSent() const { return hasSent_.load(std::memory_order_acquire); }
    // Writes of this slot's frames that failed; an exchange whose frame was
    // not written ends instead of waiting for it.
    uint32_t sendFailures() const { return sendFailures_.load(std::memory_order_acquire); }

    // Frames this slot has been given the rack lock for. It moves on just
    // before the slot takes the lock, and every incoming frame is stored
    // with the count of its moment, so that a frame can be told apart from
    // one that answers a later message.
    uint32_t framesSent() const { return framesSent_.load(std::memory_order_acquire); }
    void countFrameSent() { framesSent_.fetch_add(1, std::memory_order_acq_rel); }

    // Stores a whole frame from the slot in the incoming mailbox, tagged
    // with framesSent(). `tellsOfLostCard`: the frame says the card has
    // left or turned mute (the link reads that from the frame).
    void putIncoming(const uint8_t* frame, uint32_t size, bool tellsOfLostCard);
    // `destination` holds a whole mailbox (Mailbox::capacity bytes). The
    // frame is recorded as taken by `taker` only; the framesSent() of its
    // arrival goes to `tag` and its write number to `number` if given.
    uint32_t takeIncoming(uint8_t* destination, Mailbox::Taker taker, uint32_t* tag = nullptr,
                          uint32_t* number = nullptr);
    // A frame the status thread has not taken yet.
    bool statusWaiting() const { return incoming_.unread.load() != 0; }
    // A frame a waiting exchange has not taken or forgotten yet.
    bool answerWaiting() const { return incoming_.arrived.load() != 0; }
    // The exchange forgets every frame that has arrived so far.
    void clearIncoming() { incoming_.clearArrived(); }

    // The slot acknowledged its frame and works on it: the bus is free, but
    // the slot's answer is still to come. Cleared by any other frame from
    // the slot, by the end of an exchange's wait and by a reset.
    uint32_t blocked() const { return blocked_.load(std::memory_order_acquire); }
    void setBlocked(bool value) { blocked_.store(value ? 1 : 0, std::memory_order_release); }

    // The protocol the slot is told to use, as a T number.
    uint32_t protocol() const { return protocol_.load(std::memory_order_acquire); }
    void setProtocol(uint32_t tNumber) { protocol_.store(tNumber, std::memory_order_release); }
    // The protocols of the latest card whose ATR named any, as API bits.
    uint32_t protocolMask() const { return protocolMask_.load(std::memory_order_acquire); }
    void setProtocolMask(uint32_t mask) { protocolMask_.store(mask, std::memory_order_release); }

    // The name widened character by character; returns 0.
    uint32_t wideName(std::wstring& out) const;

    // Card state and ATR, kept by the rack's status thread.
    uint32_t cardState() const { return cardState_.load(std::memory_order_acquire); }
    uint32_t atr(uint8_t* destination) const { return atr_.load().copyTo(destination); }
    Atr atrValue() const { return atr_.load(); }
    uint32_t atrLength() const { return atr_.length(); }
    // The exchange forgets the incoming frames up to `frameNumber` (by
    // default all of them): the frame that told of the change is no answer.
    void cardInserted(Atr value, uint32_t frameNumber = kAllFrames);
    void cardRemoved(bool mute, uint32_t frameNumber = kAllFrames);
    static constexpr uint32_t kAllFrames = 0;
    // Card events of this slot so far: an insertion, a removal, a card that
    // turns mute or speaks again, a new ATR. It moves on only when the state
    // or the ATR really changes, so a status that repeats what is known is
    // no event. Connections note it, and a connection whose count is behind
    // has lost its card; status-change calls report it in their high bits.
    uint32_t eventCount() const { return eventCount_.load(std::memory_order_acquire); }
    // Frames telling of a lost card that a newer frame replaced before the
    // status thread took them, since the last call.
    uint32_t takeReplacedRemovals();
    // The write number of the frame an exchange last took as its answer.
    void markAnswer(uint32_t frameNumber) { answerFrame_.store(frameNumber, std::memory_order_release); }
    bool tookAsAnswer(uint32_t frameNumber) const
    {
        return frameNumber != 0 && answerFrame_.load(std::memory_order_acquire) == frameNumber;
    }

    // A reader is unavailable while its rack is lost, or while its slot is
    // missing from the rack's latest slot map. Marking it so forgets the
    // card (a card event, so every connection to it learns that its card is
    // gone), drops the frames in its mailboxes and wakes everyone waiting
    // on it; a reader made available again starts without a card, until
    // the slot reports one.
    bool available() const { return available_.load(std::memory_order_acquire); }
    void markUnavailable();
    void markAvailable();
    // Only the first step of markUnavailable: the reader leaves the listing.
    // A rack takes all its readers out this way first, so that a host woken
    // by the first one's event never lists the others of the same rack.
    void leaveListing() { available_.store(false, std::memory_order_release); }

    // Two host threads that exchange with the same slot would share one
    // pair of mailboxes and could take each other's answers. Every host
    // call that sends to the slot and waits for its reply (connect,
    // reconnect, disconnect, transmit) holds the slot's turn for the whole
    // exchange; a second caller sleeps on the reader's signal until the
    // first is done.
    void takeTurn();
    void giveTurn();
    // True while a host call holds the turn: an exchange or a protocol
    // selection waits for the slot's reply.
    bool turnHeld() const { return turn_.load(std::memory_order_acquire) != 0; }

    // The host threads that wait on this slot sleep on its activity: the
    // exchange or connect waiting for its frame to leave or for the slot's
    // reply, and callers waiting for the turn. It moves on when the slot's
    // frame is written (or its write fails), when a frame lands in the
    // incoming mailbox, when the card changes and when the turn is given
    // back. A waiter reads activitySeen() before it tests its condition and
    // then sleeps while it is unchanged (platform::Signal's rule); false
    // once the deadline has passed.
    uint32_t activitySeen() const { return activity_.generation(); }
    bool awaitActivity(uint32_t seen, platform::Signal::Deadline until) { return activity_.waitUntil(seen, until); }

private:
    // Stores a new card state and ATR; moves the event count on if either
    // differs from what was there.
    void changeCard(const Atr& value, uint32_t state, uint32_t frameNumber);

    SharedAtr atr_;
    Mailbox outgoing_;
    Mailbox incoming_;
    std::atomic<uint32_t> cardState_{kStateNoCard};
    std::atomic<uint32_t> protocol_{0};
    std::atomic<uint32_t> hasSent_{0};
    std::atomic<uint32_t> protocolMask_{0};
    std::atomic<uint32_t> blocked_{0};
    std::atomic<uint32_t> framesSent_{0};
    // One per reader: only the threads of one slot wait for it, so a frame
    // to one slot wakes nobody else's threads; a wake meant for another of
    // the slot's waiters costs a re-test.
    platform::Signal activity_;
    std::atomic<uint32_t> turn_{0};
    std::atomic<uint32_t> eventCount_{0};
    std::atomic<bool> available_{true};
    std::atomic<uint32_t> sendFailures_{0};
    // The receive thread's alone: whether the last incoming frame told of a
    // lost card; and the count of such frames replaced unread.
    std::atomic<bool> lastTellsOfLostCard_{false};
    std::atomic<uint32_t> replacedRemovals_{0};
    std::atomic<uint32_t> answerFrame_{0};
};

// Holds a reader's turn for the life of the object.
class ReaderTurn {
public:
    explicit ReaderTurn(Reader* reader) : reader_(reader) { reader_->takeTurn(); }
    ~ReaderTurn() { reader_->giveTurn(); }
    ReaderTurn(const ReaderTurn&) = delete;
    ReaderTurn& operator=(const ReaderTurn&) = delete;

private:
    Reader* reader_;
};
