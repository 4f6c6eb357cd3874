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

#include "platform/d2xx.h"
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

    // Outgoing (`outgoing` true): `data` is the payload behind the frame
    // head, 1 to 256 bytes; it is wrapped into a frame to this slot.
    // Incoming: `data` is a whole received frame, stored unchanged.
    void writeMailbox(bool outgoing, const uint8_t* data, uint32_t count);
    // `destination` holds a whole mailbox (Mailbox::capacity bytes). An
    // incoming frame is recorded as taken by `taker` only; its write number
    // goes to `number` if given.
    uint32_t readMailbox(bool outgoing, uint8_t* destination, uint32_t* tag = nullptr,
                         Mailbox::Taker taker = Mailbox::Taker::status, uint32_t* number = nullptr);
    uint16_t mailboxFull(bool outgoing, bool selectArrived) const;
    void clearIncoming() { incoming.clearArrived(); }

    uint32_t hasSent() const { return hasSent_.load(std::memory_order_acquire); }
    uint32_t protocol() const { return protocol_.load(std::memory_order_acquire); }
    void setProtocol(uint32_t tNumber) { protocol_.store(tNumber, std::memory_order_release); }

    // The name widened character by character; returns 0.
    uint32_t wideName(std::wstring& out) const;

    // Takes the outgoing frame and writes it to the device link; the FT
    // status of the write.
    FT_STATUS send(FT_HANDLE device);

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
    // Frames telling of a lost card (status 1 or 3) that a newer frame
    // replaced before the status thread took them, since the last call.
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
    // Writes of this slot's frames that failed; an exchange whose frame was
    // not written ends instead of waiting for it.
    uint32_t sendFailures() const { return sendFailures_.load(std::memory_order_acquire); }

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

    // Fields, in the order of the reader record.
    SharedAtr atr_;
    Mailbox outgoing;
    Mailbox incoming;
    std::atomic<uint32_t> cardState_{kStateNoCard};
    std::atomic<uint32_t> protocol_{0};
    const uint32_t address;
    std::atomic<uint32_t> hasSent_{0};
    const std::string name;
    std::atomic<uint32_t> protocolMask{0};
    std::atomic<uint32_t> blocked{0};
    // Frames this slot has been given the rack lock for. It moves on just
    // before the slot takes the lock, and every incoming frame is stored
    // with the count of its moment, so that a frame can be told apart from
    // one that answers a later message.
    std::atomic<uint32_t> framesSent{0};
    // Wakes the host threads that wait on this slot: the exchange or
    // connect waiting for its frame to leave or for the slot's reply, and
    // callers waiting for the turn. Notified when the slot's frame is
    // written to the link, when a frame lands in the incoming mailbox and
    // when the turn is given back. One per reader: only the threads of one
    // slot wait for these, so a frame to one slot wakes nobody else's
    // threads; a wake meant for another of the slot's waiters costs a
    // re-test.
    platform::Signal activity;

private:
    // Stores a new card state and ATR; moves the event count on if either
    // differs from what was there.
    void changeCard(const Atr& value, uint32_t state, uint32_t frameNumber);

    std::atomic<uint32_t> turn_{0};
    std::atomic<uint32_t> eventCount_{0};
    std::atomic<bool> available_{true};
    std::atomic<uint32_t> sendFailures_{0};
    // The receive thread's alone: whether the last incoming frame told of a
    // lost card; and the count of such frames replaced unread.
    std::atomic<bool> lastTellsOfLostCard_{false};
    std::atomic<uint32_t> replacedRemovals_{0};
    std::atomic<uint32_t> answerFrame_{0};
    static constexpr uint8_t kStatusNoCardByte = 1;
    static constexpr uint8_t kStatusMuteByte = 3;
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
