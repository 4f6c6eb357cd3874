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

#include "link/growing_list.h"
#include "link/rack_frame.h"
#include "platform/d2xx.h"
#include "platform/device_event.h"
#include "platform/sync.h"
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
    void reset();
    void startEnumeration();
    void finishEnumeration();

    // Receive reassembly.
    void receiveLoop();
    void receiveBytes(uint32_t waiting);

    // Frame dispatch and enumeration.
    void handleFrame(const uint8_t* frame, uint32_t size);
    void handleEnumerationReply(const uint8_t* frame);
    void addReader(uint32_t address);
    void pollReaders();

    // Send queue and rack lock.
    enum class Direction { toReader, fromReader };
    void enqueue(Reader* reader);
    void trySendNext();
    void unlock();
    bool unlockIfHeldBy(uint32_t address);
    // Frees the lock only if `reader` holds it for the frame that was its
    // latest when `framesSentThen` was read: never for a newer frame.
    bool unlockIfHeldFor(Reader* reader, uint32_t framesSentThen);
    bool isLocked() const { return lockHolder.load() != nullptr; }
    // Turns waiting in the send queue, read under the queue's guard.
    size_t queuedTurns();
    void selectProtocol(Reader* reader);
    void requestStatus(Reader* reader);
    void forwardToReader(Reader* reader, const uint8_t* bytes, uint32_t count, Direction direction);

    // Card state and status collection.
    void statusLoop();
    void processReaderStatus(Reader* reader);
    uint32_t readerAtr(uint32_t cardHandle, uint8_t* destination);
    uint32_t supportedProtocols(Reader* reader);
    uint32_t supportsProtocol(Reader* reader, uint32_t wanted);

    // Card connections.
    void connectCard(Reader* reader, uint32_t activeProtocol);

    // Lookups over this rack's readers; null or false when none matches.
    Reader* readerByAddress(uint32_t address) const;
    Reader* readerByName(const char* name) const;
    Reader* readerByWideName(const wchar_t* name) const;
    Reader* readerByHandle(uint32_t cardHandle) const;
    bool hasReader(const char* name) const { return readerByName(name) != nullptr; }
    bool hasReader(const wchar_t* name) const { return readerByWideName(name) != nullptr; }

    // Stop path: ends both worker loops and waits for them. Safe to call
    // more than once.
    void stopWorkers();
    bool stopping() const { return stopRequested_.load(std::memory_order_acquire); }

    static constexpr uint32_t rxCapacity = 2048;

    // Fields, in the order of the rack record.
    std::deque<Reader*> sendQueue;
    std::atomic<uint32_t> statusCount{0};
    platform::WorkerThread workers[2];  // 0: status loop, 1: receive loop
    uint32_t rxMsgLastIndexOf = 0;
    FT_HANDLE ftHandle = nullptr;
    uint8_t rxMsg[rxCapacity] = {};
    platform::TryMutex sendMutex;
    int64_t lastRxTime = 0;
    uint32_t expectedLength = 0;
    std::atomic<Reader*> lockHolder{nullptr};
    GrowingList<Reader*> readers;
    std::string serial;
    std::atomic<uint32_t> enumerated{0};
    std::atomic<uint32_t> connected{0};

private:
    // A pause of a worker thread that ends early once the workers are told
    // to stop, so that the stop path never waits out a long pause.
    void workerPause(uint32_t milliseconds);
    bool sendQueueEmpty();
    void receiveSeveralFrames();
    uint32_t bytesToRead(uint32_t waiting) const;
    void parseWhatIsHeld();
    // The fast link (fast_link.h): set up at open; the receive loop's wait
    // between polls, on the device's event while there is one.
    void setUpFastLink();
    void pauseBetweenPolls(uint32_t pollMs);

    // Several threads change the send queue: a short guard of its own,
    // never held across a write to the device.
    platform::ExclusiveLock sendQueueGuard_;
    std::atomic<bool> stopRequested_{false};
    // The link is closed once, by close() at unload or by the stop path.
    std::atomic<bool> linkClosed_{false};
    // Signalled by the device when bytes arrive; null without the fast link.
    std::unique_ptr<platform::DeviceEvent> receiveEvent_;
};
