// One rack unit behind one FTDI device: the device link, the reassembly of
// the byte stream into frames, the send queue with the rack lock (one
// message at a time on the bus), the list of readers, and two worker
// threads (status and receive).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
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

class Rack {
public:
    // Opens the device with this serial number and starts both workers.
    // If the device does not open, throws the FT status as int32_t; no
    // thread has been started then.
    explicit Rack(const char* serialNumber);
    // Stops the workers and frees the readers. The library itself never
    // destroys a rack; this is the stop path for an unload that the
    // process outlives, and for tests.
    ~Rack();
    Rack(const Rack&) = delete;
    Rack& operator=(const Rack&) = delete;

    // Device link and the frames to the master.
    FT_STATUS open(const char* serialNumber);
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
    void noteLinkStatus(FT_STATUS status);
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
    void finishEnumeration();

    // Receive reassembly: the loop pauses 5 ms before each pass.
    void receiveLoop();
    // One pass at `nowMs` (wall clock): the queue status, the give-up test,
    // the read and the parse. Returns the bytes the device reported waiting.
    uint32_t receivePass(int64_t nowMs);
    void receiveBytes(uint32_t waiting);

    // Frame dispatch and enumeration.
    void handleFrame(const uint8_t* frame, uint32_t size);
    void handleEnumerationReply(const uint8_t* frame);
    void addReader(uint32_t address);
    void pollReaders();
    // Statuses the bring-up collects: one per slot of the latest slot map.
    uint32_t expectedStatuses() const { return expectedStatuses_.load(std::memory_order_acquire); }

    // Send queue and rack lock.
    enum class Direction { toReader, fromReader };
    void enqueue(Reader* reader) EXCLUDES(sendQueueGuard_);
    void trySendNext() EXCLUDES(sendQueueGuard_, sendMutex_);
    void unlock();
    bool unlockIfHeldBy(uint32_t address);
    // Frees the lock only if `reader` holds it for the frame that was its
    // latest when `framesSentThen` was read: never for a newer frame.
    bool unlockIfHeldFor(Reader* reader, uint32_t framesSentThen) EXCLUDES(sendQueueGuard_);
    bool isLocked() const { return lockHolder_.load() != nullptr; }
    // The reader whose frame holds the bus, or null.
    Reader* lockHolder() const { return lockHolder_.load(); }
    // Turns waiting in the send queue, read under the queue's guard.
    size_t queuedTurns() EXCLUDES(sendQueueGuard_);
    // Takes every turn of `reader` out of the send queue: its caller gave
    // up waiting, and the frame must not go out behind its back.
    void withdrawTurns(Reader* reader) EXCLUDES(sendQueueGuard_);
    void selectProtocol(Reader* reader);
    void requestStatus(Reader* reader);
    void forwardToReader(Reader* reader, const uint8_t* bytes, uint32_t count, Direction direction);

    // The readers, in the order of the slot map; the list only grows. A
    // reader stays in it after its slot has gone (unavailable), and the
    // same object serves the slot when it comes back.
    const GrowingList<Reader*>& readers() const { return readers_; }
    // One look in a table by address, no walk.
    Reader* readerByAddress(uint32_t address) const;
    const std::string& serialNumber() const { return serial; }
    bool connected() const { return connected_.load(std::memory_order_acquire) != 0; }
    bool enumerated() const { return enumerated_.load(std::memory_order_acquire) != 0; }

    // Statuses collected during enumeration. Only the status thread counts;
    // countStatus returns the count including this one.
    uint32_t statusCount() const { return statusCount_.load(std::memory_order_acquire); }
    uint32_t countStatus();

    // Stop path: ends both worker loops and waits for them. Safe to call
    // more than once.
    void stopWorkers();
    bool stopping() const { return stopRequested_.load(std::memory_order_acquire); }

    // The receive thread's alone: the bytes held, the size of the frame at
    // their head and the last time the link was seen with bytes waiting.
    FrameAssembler assembler{[this](const uint8_t* frame, uint32_t size) { handleFrame(frame, size); }};
    FT_HANDLE ftHandle = nullptr;

private:
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
    bool sendQueueEmpty() EXCLUDES(sendQueueGuard_);
    // The fast link (fast_link.h): set up at open; the receive loop's wait
    // between polls, on the device's event while there is one.
    void setUpFastLink();
    void pauseBetweenPolls(uint32_t pollMs);

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
