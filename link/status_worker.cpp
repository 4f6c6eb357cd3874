// The rack's status thread: takes every frame that lands in a reader's
// incoming mailbox and keeps the reader's card state and ATR. While the
// rack is not yet enumerated it also counts one status per reader and sends
// the status-collected frame when all have answered.
#include "link/status_worker.h"

#include <cstring>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/signal.h"
#include "reader/reader.h"

namespace {

// The status thread sleeps until the receive thread stores a frame for a
// reader (or the stop): an idle rack costs no wake-ups. The limit only
// bounds a wake-up that went astray.
constexpr uint32_t kRecheckMs = 1000;

enum : uint8_t {
    kStatusNoCard = 1,
    kStatusNoEvent2 = 2,
    kStatusMute = 3,
    kStatusNoEvent4 = 4,
    kStatusCardData = 5,
};

// A status with an ATR other than the stored one is a card swapped between
// two messages: the slot never reported the old card gone. Answers to card
// commands reach the same mailbox, and their data is no ATR: an extended
// frame never carries one (an ATR has at most 33 bytes); while a host call
// holds the slot's turn the frame may be its answer; and a frame that an
// exchange took as its answer is one.
bool isOtherCard(const Reader& reader, const Atr& offered, bool extended, uint32_t frameNumber)
{
    if (extended || offered.length == 0 || reader.turnHeld() || reader.tookAsAnswer(frameNumber)) return false;
    const Atr known = reader.atrValue();
    return known.length != offered.length || std::memcmp(known.bytes, offered.bytes, offered.length) != 0;
}

}  // namespace

void runStatusWorker(Rack& rack)
{
    platform::Signal& frames = rack.incomingFrames();
    while (!rack.stopping()) {
        const uint32_t seen = frames.generation();
        takeNewStatuses(rack);
        frames.wait(seen, kRecheckMs);
    }
}

void takeNewStatuses(Rack& rack)
{
    // The frames of a lost link were dropped with it (markUnavailable).
    if (rack.lost()) return;
    const GrowingList<Reader*>& readers = rack.readers();
    for (size_t i = 0, n = readers.size(); i < n; ++i) {
        Reader* reader = readers[i];
        if (reader->statusWaiting()) takeReaderStatus(rack, *reader);
    }
}

void takeReaderStatus(Rack& rack, Reader& reader)
{
    uint8_t frame[Mailbox::capacity] = {};
    uint32_t sentWhenStored = 0;
    uint32_t frameNumber = 0;
    reader.takeIncoming(frame, Mailbox::Taker::status, &sentWhenStored, &frameNumber);
    uint8_t status = frameStatus(frame);
    bool extended = frame[3] == RackFrame::extendedMarker;

    // Any message of the slot frees the rack lock if the slot holds it, but
    // only a message that came after the slot's latest frame went out. The
    // status thread can lag behind: if the slot has been given the lock for
    // a newer frame since this one arrived, this one answers an older
    // message, and freeing the lock now would put a second frame on the bus
    // while the newer one is unanswered.
    rack.releaseLock(&reader, sentWhenStored);

    if (!rack.enumerated()) {
        uint32_t count = rack.countStatus();
        if (status == kStatusNoCard) {
            logWrite(reader.name + " Reader without card found.\n");
        } else {
            logWrite(reader.name + ": Reader with card found.\n");
            reader.cardInserted(Atr(frame + 4, frame[2]), frameNumber);
        }
        if (count == rack.expectedStatuses()) {
            logWrite("SCR " + rack.serialNumber() + ": Status collection complete, sending C2\n");
            rack.finishEnumeration();
        }
        return;
    }

    // A removal whose frame was replaced before this thread took it still
    // counts: the card left, whatever this frame says now.
    if (reader.takeReplacedRemovals() != 0 && reader.cardState() != kStateNoCard) {
        logWrite(reader.name + ": Card removed\n");
        reader.cardRemoved(false, frameNumber);
    }

    if (extended || status == kStatusCardData) {
        const Atr offered(frame + 4, frame[2]);
        if (reader.atrLength() == 0 || isOtherCard(reader, offered, extended, frameNumber)) {
            logWrite(reader.name + ": New card found\n");
            reader.cardInserted(offered, frameNumber);
        }
        return;
    }
    switch (status) {
    case kStatusNoCard:
        logWrite(reader.name + ": Card removed\n");
        reader.cardRemoved(false, frameNumber);
        break;
    case kStatusMute:
        reader.cardRemoved(true, frameNumber);
        break;
    case kStatusNoEvent2:
    case kStatusNoEvent4:
        break;
    default:
        logWrite("bStatus invalid. " + decimalText(static_cast<int32_t>(status)) + "\n");
        break;
    }
}
