// One rack unit behind one FTDI device: the device link, the reassembly of
// the byte stream into frames, the send queue with the rack lock (one
// message at a time on the bus), the list of readers, and two worker
// threads (status and receive).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>

#include "link/frame_assembler.h"
#include "link/growing_list.h"
#include "link/rack_frame.h"
#include "platform/d2xx.h"
#include "platform/device_event.h"
#include "platform/signal.h"
#include "platform/sync.h"
#include "platform/thread_safety.h"
#include "platform/thread.h"

class Reader;

// A rack whose device did not open: the D2XX status of the open. No worker
// thread has been started then.
class RackOpenError : public std::runtime_error {
public:
    explicit RackOpenError(FT_STATUS status) : std::runtime_error("rack device did not open"), status_(status) {}
    FT_STATUS status() const { return status_; }

private:
    FT_STATUS status_;
};

class Rack {
public:
    // Opens the device with this serial number and starts both workers.
    // Throws RackOpenError if the device does not open.
    explicit Rack(const char* serialNumber);
    // Stops the workers and frees the readers. The library itself never
    // destroys a rack; this is the stop path for an unload that the
    // process outlives, and for tests.
    ~Rack();
    Rack(const Rack&) = delete;
    Rack& operator=(const Rack&) = delete;

    // Closes the device link (unload).
    FT_STATUS close();

    // Loss and return of the device. Every D2XX status of the link goes
    // through noteLinkStatus: a call that fails with FT_IO_ERROR,
    // FT_DEVICE_NOT_FOUND or FT_INVALID_HANDLE kLinkFailuresForLoss times in
    // a row, with no call that succeeds in between, means the device has
    // gone (an unplugged cable, a hub reset, a rack without power). The
    // receive thread polls the link every 5 ms, so a device that fails every
    // call is found lost within a few polls, while a single failed write
    // between good polls is only that write's failure. The receive thread
    // then closes the link, traces "Rack <serial> lost" once, and makes
    // every reader unavailable (Reader::markUnavailable).
    static constexpr uint32_t kLinkFailuresForLoss = 3;
    bool lost() const { return lost_.load(std::memory_order_acquire); }
    // True once the rack has been lost at least once, or its first bring-up
    // was given up: waits for the first bring-up no longer count it.
    bool everLost() const { return everLost_.load(std::memory_order_acquire); }
    // Asks the receive thread of a lost rack to open its device again, reset
    // the rack and enumerate it (the device is back in the device list).
    void requestReopen();
    void reset() EXCLUDES(sendQueueGuard_);
    // The reset without its pause, for racks brought up together: each is
    // sent its reset, and one pause serves them all.
    void sendReset() EXCLUDES(sendQueueGuard_);
    static constexpr uint32_t kResetPauseMs = 1500;
    void startEnumeration();

    // A bring-up (from the enumerate frame to the master's closing frame)
    // that takes longer than kBringUpLimitMs on the library's clock is
    // given up: the rack's fixed pauses (1.5 s after the reset, 3 s before
    // the statuses) and the wire time of 240 slots' statuses take about
    // 5.6 s, so the limit leaves room for a loaded machine. A rack given up
    // is closed and traced ("Rack <serial> bring-up failed") by its receive
    // thread and then treated as lost: the search tries it again.
    static constexpr uint32_t kBringUpLimitMs = 10000;
    bool bringUpOverdue(uint32_t nowTick) const;
    void giveUpBringUp();
    // The status thread's part of the bring-up: it counts one status per
    // reader (countStatus returns the count including this one; only the
    // status thread counts) and, once all have answered, sends the
    // status-collected frame.
    uint32_t countStatus();
    void finishEnumeration();
    // Statuses the bring-up collects: one per slot of the latest slot map.
    uint32_t expectedStatuses() const { return expectedStatuses_.load(std::memory_order_acquire); }
    uint32_t statusCount() const { return statusCount_.load(std::memory_order_acquire); }

    // The receive thread's work, one pass at a time (the thread pauses 5 ms
    // before each): startReceiving marks the link seen at the loop's start;
    // receivePass at `nowMs` (wall clock) looks at the queue, tests the
    // give-up, reads and parses, and returns the bytes the device reported
    // waiting. Bytes held of a frame not yet whole: heldBytes.
    void startReceiving(int64_t nowMs);
    uint32_t receivePass(int64_t nowMs);
    uint32_t heldBytes() const { return assembler_.heldCount(); }

    // Send queue and rack lock. A frame to a slot waits for its turn in the
    // queue; the rack lock names the reader whose frame is on the bus.
    void selectProtocol(Reader* reader);
    void requestStatus(Reader* reader);
    // A card command (at most 255 bytes) to the slot.
    void sendCommand(Reader* reader, const uint8_t* bytes, uint32_t count);
    // The release of the rack lock by its holder: frees it only if `reader`
    // holds it, and, given `framesSentThen`, only for the frame that was the
    // reader's latest when that count was read, never for a newer one.
    // Traces "Checking", and "match" when it frees the lock.
    bool releaseLock(Reader* reader) EXCLUDES(sendQueueGuard_) { return releaseLockOf(reader, false, 0); }
    bool releaseLock(Reader* reader, uint32_t framesSentThen) EXCLUDES(sendQueueGuard_)
    {
        return releaseLockOf(reader, true, framesSentThen);
    }
    bool isLocked() const { return lockHolder_.load() != nullptr; }
    // The reader whose frame holds the bus, or null.
    Reader* lockHolder() const { return lockHolder_.load(); }
    // Turns waiting in the send queue, read under the queue's guard.
    size_t queuedTurns() EXCLUDES(sendQueueGuard_);
    // Takes every turn of `reader` out of the send queue: its caller gave
    // up waiting, and the frame must not go out behind its back.
    void withdrawTurns(Reader* reader) EXCLUDES(sendQueueGuard_);
    // Moves on with every frame put into a reader's incoming mailbox and
    // with the stop: the status thread sleeps on it instead of polling.
    platform::Signal& incomingFrames() { return incomingFrames_; }

    // The readers, in the order of the slot map; the list only grows. A
    // reader stays in it after its slot has gone (unavailable), and the
    // same object serves the slot when it comes back.
    const GrowingList<Reader*>& readers() const { return readers_; }
    // One look in a table by address, no walk.
    Reader* readerByAddress(uint32_t address) const;
    const std::string& serialNumber() const { return serial; }
    bool connected() const { return connected_.load(std::memory_order_acquire) != 0; }
    bool enumerated() const { return enumerated_.load(std::memory_order_acquire) != 0; }

    // Stop path: ends both worker loops and waits for them. Safe to call
    // more than once.
    void stopWorkers();
    bool stopping() const { return stopRequested_.load(std::memory_order_acquire); }

private:
    // Device link.
    FT_STATUS open(const char* serialNumber);
    void noteLinkStatus(FT_STATUS status);

    // Receive reassembly and frame dispatch, on the receive thread.
    void receiveLoop();
    void receiveBytes(uint32_t waiting);
    void handleFrame(const uint8_t* frame, uint32_t size);
    void handleEnumerationReply(const uint8_t* frame);
    void addReader(uint32_t address);
    void pollReaders();
    // A frame from a slot into its reader's incoming mailbox.
    void deliverToReader(Reader* reader, const uint8_t* frame, uint32_t size);

    // Send queue: a payload (command byte first, 1 to 256 bytes) framed
    // into the reader's outgoing mailbox; the reader's turn in the queue;
    // the write of its frame when the turn comes.
    void putPayload(Reader* reader, const uint8_t* payload, uint32_t count);
    void enqueue(Reader* reader) EXCLUDES(sendQueueGuard_);
    void trySendNext() EXCLUDES(sendQueueGuard_, sendMutex_);
    FT_STATUS writeFrameOf(Reader* reader);
    // Frees the bus whoever holds it: an acknowledge from any slot does.
    void freeBus();
    // The one path of both releaseLock forms.
    bool releaseLockOf(Reader* reader, bool onlyForFrame, uint32_t framesSentThen) EXCLUDES(sendQueueGuard_);

    // The receive thread's alone: the bytes held, the size of the frame at
    // their head and the last time the link was seen with bytes waiting.
    FrameAssembler assembler_{[this](const uint8_t* frame, uint32_t size) { handleFrame(frame, size); }};
    FT_HANDLE ftHandle = nullptr;

    // The receive thread's side of loss and return.
    void loseLink(const char* why = "lost");
    void comeBack();
    // Holds sendMutex_ for a write that is not a slot's turn (the frames to
    // the master, the close and reopen of the link), trying until it gets
    // it: its holders only ever write one frame. Hands on the turn that a
    // sender lost to it once released.
    void lockLinkForWrite() ACQUIRE(sendMutex_);
    void unlockLinkAfterWrite() RELEASE(sendMutex_);
    FT_STATUS writeMasterFrame(const uint8_t* frame) EXCLUDES(sendMutex_);
    // A pause of a worker thread that ends early once the workers are told
    // to stop, so that the stop path never waits out a long pause.
    void workerPause(uint32_t milliseconds);
    // Wakes a worker's pause when the workers are told to stop.
    platform::Signal stopSignal_;
    platform::Signal incomingFrames_;
    bool sendQueueEmpty() EXCLUDES(sendQueueGuard_);
    // The fast link (fast_link.h): set up at open; the receive loop's wait
    // between polls, on the device's event while there is one.
    void setUpFastLink();
    // Without the fast link, the bring-up alone runs on the shortest
    // latency timer, and the driver's own comes back once it is over.
    void shortenTimerForBringUp();
    void restoreTimerAfterBringUp();
    // The driver's timer to put back after the bring-up; 0: none to put back.
    std::atomic<uint32_t> timerAfterBringUp_{0};
    void pauseBetweenPolls(bool busy, uint32_t writesSeen);
    // Busy: a frame is awaited or under way, or the link moved lately. Only
    // the receive thread asks (the assembler is its own).
    bool linkBusy();
    // Called after every write: the receive thread polls fast again.
    void noteLinkMoved();
    platform::Signal linkWrites_;
    std::atomic<uint32_t> linkMovedAt_{0};

    // Several threads change the send queue: a short guard of its own,
    // never held across a write to the device. It also keeps a turn, the
    // reader's frame count and the rack lock together (see trySendNext).
    platform::ExclusiveLock sendQueueGuard_;
    std::deque<Reader*> sendQueue_ GUARDED_BY(sendQueueGuard_);
    // The step from a free rack lock to a written frame; only ever tried.
    platform::TryMutex sendMutex_;
    std::atomic<Reader*> lockHolder_{nullptr};
    std::atomic<uint32_t> failuresInRow_{0};
    std::atomic<bool> lossPending_{false};
    std::atomic<bool> giveUpPending_{false};
    std::atomic<bool> bringUpRunning_{false};
    std::atomic<uint32_t> bringUpStartedAt_{0};
    std::atomic<bool> lost_{false};
    std::atomic<bool> everLost_{false};
    std::atomic<bool> reopenWanted_{false};
    std::atomic<uint32_t> expectedStatuses_{0};
    std::atomic<Reader*> byAddress_[256] = {};
    std::atomic<uint32_t> statusCount_{0};
    platform::WorkerThread workers_[2];  // 0: status loop, 1: receive loop
    GrowingList<Reader*> readers_;
    std::string serial;
    std::atomic<uint32_t> enumerated_{0};
    std::atomic<uint32_t> connected_{0};
    std::atomic<bool> stopRequested_{false};
    // The link is closed once, by close() at unload or by the stop path.
    std::atomic<bool> linkClosed_{false};
    // Signalled by the device when bytes arrive; null without the fast link.
    std::unique_ptr<platform::DeviceEvent> receiveEvent_;
};
