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

    bool releasedByHolder = unlockIfHeldBy(address);
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
        if (reader != nullptr) reader->blocked.store(1, std::memory_order_release);
        logWrite("Unlocking rack\n");
        if (!releasedByHolder) unlock();
        return;
    }

    // A frame from an address without a reader is traced above and
    // otherwise dropped: it belongs to no mailbox.
    if (reader == nullptr) return;

    reader->blocked.store(0, std::memory_order_release);
    if (lockHolder_.load() == reader) logWrite("ACK missed by " + reader->name + "\n");
    logWrite(reader->name + ": unlocked\n");
    forwardToReader(reader, frame, size, Direction::fromReader);
}

void Rack::handleEnumerationReply(const uint8_t* frame)
{
    logWrite("Starting enumeration\n");
    // The map is the frame's data: a shorter map leaves the slots behind it
    // empty, and the checksum byte is never taken for a slot.
    uint32_t dataBytes = receivedFrameSize(frame) - 5;
    uint32_t mapBytes = dataBytes < kSlotCount ? dataBytes : kSlotCount;
    for (uint32_t index = 4; index < 4 + mapBytes; ++index) {
        uint8_t kind = frame[index] & 0x0F;
        if (kind >= 1 && kind <= 3) addReader(index - 3);
    }
    logWrite("SCR " + serial + " Found " + decimalText(static_cast<uint32_t>(readers_.size())) + " readers\n");
    workerPause(kPauseBeforeStatusMs);
    pollReaders();
}

void Rack::addReader(uint32_t address)
{
    if (!connected()) return;
    // The reader is complete before the list publishes it. A new reader
    // changes the count that status-change waits report for the
    // plug-and-play name.
    readers_.append(new Reader(address, serial));
    cardEvents().notify();
}

void Rack::pollReaders()
{
    for (size_t i = 0, n = readers_.size(); i < n; ++i) requestStatus(readers_[i]);
}

// First match wins; the list only grows and publishes complete readers,
// so the walk takes no lock.
Reader* Rack::readerByAddress(uint32_t address) const
{
    for (size_t i = 0, n = readers_.size(); i < n; ++i)
        if (readers_[i]->address == address) return readers_[i];
    return nullptr;
}
