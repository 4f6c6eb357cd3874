// What a whole frame is: an acknowledge, a frame from the master, or a
// message for a reader's incoming mailbox. Also the bring-up of the rack's
// readers from the master's slot map. Runs on the receive thread.
#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/clock.h"
#include "reader/reader.h"

namespace {

constexpr uint32_t kSlotCount = 240;
constexpr uint32_t kPauseBeforeStatusMs = 3000;

}  // namespace

void Rack::handleFrame(const uint8_t* frame, uint32_t size)
{
    uint32_t address = frame[1];
    uint8_t status = frameStatus(frame);

    // Any frame of the slot that holds the rack lock frees it.
    bool releasedByHolder = releaseLock(readerByAddress(address));
    logWrite("Smart card rack " + serial + " reader " + decimalText(address) + " RX - " +
             tracedBytes(TracedBytes::frame, frame, static_cast<int32_t>(size)) + "\n");

    if (address == RackFrame::masterAddress) {
        logWrite("msg from master\n");
        if (status != RackFrame::acknowledge) {
            if (frame[3] == RackFrame::masterEnumerationReply) {
                handleEnumerationReply(frame);
            } else if (frame[3] == RackFrame::masterEnumerationComplete) {
                logWrite("SRC " + serial + ": Enumeration complete.\n");
                enumerated_.store(1, std::memory_order_release);
                bringUpRunning_.store(false, std::memory_order_release);
                // Hosts waiting in SCardEstablishContext sleep on this.
                cardEvents().notify();
            }
        }
        // An acknowledge from the master has no reader to go to: it leaves
        // every reader and the rack lock alone.
        return;
    }

    Reader* reader = readerByAddress(address);
    if (status == RackFrame::acknowledge) {
        // An acknowledge from any slot frees the bus, even if another slot
        // holds the lock. One from an address without a reader frees it too
        // (the bus is free whoever answered), but marks no reader.
        if (reader != nullptr) reader->setBlocked(true);
        logWrite("Unlocking rack\n");
        if (!releasedByHolder) freeBus();
        return;
    }

    // A frame from an address without a reader is traced above and
    // otherwise dropped: it belongs to no mailbox.
    if (reader == nullptr) return;

    reader->setBlocked(false);
    if (lockHolder_.load() == reader) logWrite("ACK missed by " + reader->name + "\n");
    logWrite(reader->name + ": unlocked\n");
    deliverToReader(reader, frame, size);
}

void Rack::deliverToReader(Reader* reader, const uint8_t* frame, uint32_t size)
{
    reader->putIncoming(frame, size, frameTellsOfLostCard(frame, size));
    incomingFrames_.notify();
}

void Rack::handleEnumerationReply(const uint8_t* frame)
{
    logWrite("Starting enumeration\n");
    // A slot map from a rack that was already up (a rack that lost power
    // and announces itself again): it comes up again in place. Every slot
    // starts afresh, as the rack has forgotten its cards' state; the slots
    // of the new map are matched to their readers by address, and the
    // readers of slots it no longer names stay unavailable.
    const bool again = readers_.size() > 0;
    if (again) {
        for (size_t i = 0, n = readers_.size(); i < n; ++i) readers_[i]->leaveListing();
        for (size_t i = 0, n = readers_.size(); i < n; ++i) readers_[i]->markUnavailable();
        statusCount_.store(0, std::memory_order_release);
        enumerated_.store(0, std::memory_order_release);
        bringUpStartedAt_.store(platform::tickCount(), std::memory_order_release);
        bringUpRunning_.store(true, std::memory_order_release);
    }
    // The map is the frame's data: a shorter map leaves the slots behind it
    // empty, and the checksum byte is never taken for a slot.
    uint32_t dataBytes = receivedFrameSize(frame) - 5;
    uint32_t mapBytes = dataBytes < kSlotCount ? dataBytes : kSlotCount;
    uint32_t slots = 0;
    for (uint32_t index = 4; index < 4 + mapBytes; ++index) {
        uint8_t kind = frame[index] & 0x0F;
        if (kind >= 1 && kind <= 3) {
            addReader(index - 3);
            ++slots;
        }
    }
    expectedStatuses_.store(slots, std::memory_order_release);
    logWrite("SCR " + serial + " Found " + decimalText(slots) + " readers\n");
    workerPause(kPauseBeforeStatusMs);
    pollReaders();
}

void Rack::addReader(uint32_t address)
{
    if (!connected()) return;
    // The same slot keeps its reader for the life of the library: a host
    // may hold a pointer to it, and its name must never be listed twice.
    if (Reader* known = readerByAddress(address)) {
        known->markAvailable();
        return;
    }
    // The reader is complete before the list publishes it. A new reader
    // changes the count that status-change waits report for the
    // plug-and-play name.
    Reader* reader = new Reader(address, serial);
    readers_.append(reader);
    if (address < 256) byAddress_[address].store(reader, std::memory_order_release);
    cardEvents().notify();
}

void Rack::pollReaders()
{
    for (size_t i = 0, n = readers_.size(); i < n; ++i)
        if (readers_[i]->available()) requestStatus(readers_[i]);
}

Reader* Rack::readerByAddress(uint32_t address) const
{
    return address < 256 ? byAddress_[address].load(std::memory_order_acquire) : nullptr;
}
