#include "link/rack.h"

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/status_worker.h"
#include "platform/clock.h"
#include "reader/reader.h"

Rack::Rack(const char* serialNumber)
{
    serial = serialNumber ? serialNumber : "";
    FT_STATUS status = open(serial.c_str());
    if (status != FT_OK) throw RackOpenError(status);
    workers_[0].start([this] { runStatusWorker(*this); });
    workers_[1].start([this] { receiveLoop(); });
    logWrite("Rack " + serial + " connected\n");
    connected_.store(1, std::memory_order_release);
}

Rack::~Rack()
{
    stopWorkers();
    if (ftHandle != nullptr && !linkClosed_.exchange(true)) FT_Close(ftHandle);
    for (size_t i = 0, n = readers_.size(); i < n; ++i) delete readers_[i];
    readers_.clear();
}

void Rack::stopWorkers()
{
    stopRequested_.store(true, std::memory_order_release);
    stopSignal_.notify();
    incomingFrames_.notify();
    linkWrites_.notify();
    if (receiveEvent_) receiveEvent_->wake();
    workers_[0].join();
    workers_[1].join();
}

void Rack::workerPause(uint32_t milliseconds)
{
    // A deadline on the tick counter, not a count of sleeps: however late
    // a sleep comes back on a loaded machine, the pause ends when its time
    // is up. The stop path wakes it at once.
    const uint32_t start = platform::tickCount();
    for (;;) {
        const uint32_t seen = stopSignal_.generation();
        if (stopping()) return;
        const uint32_t elapsedMs = platform::tickCount() - start;
        if (elapsedMs >= milliseconds) return;
        stopSignal_.wait(seen, milliseconds - elapsedMs);
    }
}

FT_STATUS Rack::open(const char* serialNumber)
{
    if (ftHandle != nullptr) return FT_OK;
    FT_STATUS status = FT_OpenEx(const_cast<char*>(serialNumber), FT_OPEN_BY_SERIAL_NUMBER, &ftHandle);
    if (status != FT_OK) {
        ftHandle = nullptr;
        logWrite("no rack found");
        return status;
    }
    // Only the line settings: flow control, time-outs, the latency timer
    // and the buffers stay as the device driver leaves them, unless the
    // fast link is asked for.
    FT_SetBaudRate(ftHandle, 115200);
    FT_SetDataCharacteristics(ftHandle, 8, 0, 0);
    logWrite("connect\n");
    setUpFastLink();
    return FT_OK;
}

void Rack::noteLinkStatus(FT_STATUS status)
{
    if (status == FT_OK) {
        failuresInRow_.store(0, std::memory_order_release);
        return;
    }
    // Other failures (a bad parameter, a refused setting) say nothing of
    // the device being there, and do not break a run either.
    if (status != FT_IO_ERROR && status != FT_DEVICE_NOT_FOUND && status != FT_INVALID_HANDLE) return;
    if (failuresInRow_.fetch_add(1, std::memory_order_acq_rel) + 1 >= kLinkFailuresForLoss)
        lossPending_.store(true, std::memory_order_release);
}

void Rack::requestReopen()
{
    reopenWanted_.store(true, std::memory_order_release);
    stopSignal_.notify();
}

void Rack::lockLinkForWrite()
{
    while (!sendMutex_.tryLock()) platform::pauseMs(1);
}

void Rack::unlockLinkAfterWrite()
{
    sendMutex_.unlock();
    if (lockHolder_.load() == nullptr && !sendQueueEmpty()) trySendNext();
}

FT_STATUS Rack::writeMasterFrame(const uint8_t* frame)
{
    lockLinkForWrite();
    if (lost()) {
        unlockLinkAfterWrite();
        return FT_DEVICE_NOT_FOUND;
    }
    uint32_t written = 0;
    const FT_STATUS status = FT_Write(ftHandle, const_cast<uint8_t*>(frame), 5, &written);
    unlockLinkAfterWrite();
    noteLinkMoved();
    if (status != FT_OK) logWrite("FT_Write failed - " + decimalText(static_cast<uint32_t>(status)));
    noteLinkStatus(status);
    return status;
}

// On the receive thread, which alone reads the link. The link is marked
// lost under sendMutex_, so no slot's frame is written to the closed handle;
// the turns queued are dropped and the rack lock freed, and every waiting
// exchange is woken by its reader's unavailability.
bool Rack::bringUpOverdue(uint32_t nowTick) const
{
    return bringUpRunning_.load(std::memory_order_acquire) && !enumerated() && !lost() &&
           nowTick - bringUpStartedAt_.load(std::memory_order_acquire) > kBringUpLimitMs;
}

void Rack::giveUpBringUp() { giveUpPending_.store(true, std::memory_order_release); }

void Rack::loseLink(const char* why)
{
    lossPending_.store(false, std::memory_order_release);
    giveUpPending_.store(false, std::memory_order_release);
    bringUpRunning_.store(false, std::memory_order_release);
    lockLinkForWrite();
    lost_.store(true, std::memory_order_release);
    everLost_.store(true, std::memory_order_release);
    sendMutex_.unlock();
    if (!linkClosed_.exchange(true)) FT_Close(ftHandle);
    logWrite("Rack " + serial + " " + why + "\n");
    {
        platform::LockGuard guard(sendQueueGuard_);
        sendQueue_.clear();
        lockHolder_.store(nullptr);
    }
    for (size_t i = 0, n = readers_.size(); i < n; ++i) readers_[i]->leaveListing();
    for (size_t i = 0, n = readers_.size(); i < n; ++i) readers_[i]->markUnavailable();
    cardEvents().notify();
}

// The device is in the device list again: open it, reset the rack and
// enumerate it. The readers come back as the slot map names them
// (handleEnumerationReply). If the open fails the rack stays lost and the
// next search tries again.
void Rack::comeBack()
{
    FT_HANDLE handle = nullptr;
    FT_STATUS status = FT_OpenEx(const_cast<char*>(serial.c_str()), FT_OPEN_BY_SERIAL_NUMBER, &handle);
    if (status != FT_OK) return;
    lockLinkForWrite();
    ftHandle = handle;
    linkClosed_.store(false);
    failuresInRow_.store(0, std::memory_order_release);
    lossPending_.store(false, std::memory_order_release);
    lost_.store(false, std::memory_order_release);
    sendMutex_.unlock();
    FT_SetBaudRate(ftHandle, 115200);
    FT_SetDataCharacteristics(ftHandle, 8, 0, 0);
    setUpFastLink();
    assembler_.restart();
    assembler_.linkSeen(platform::wallClockMs());
    statusCount_.store(0, std::memory_order_release);
    enumerated_.store(0, std::memory_order_release);
    logWrite("Rack " + serial + " back\n");
    reset();
    startEnumeration();
}

FT_STATUS Rack::close()
{
    if (ftHandle == nullptr) return FT_OK;
    logWrite("Disconnecting from card rack\n");
    if (linkClosed_.exchange(true)) return FT_OK;
    return FT_Close(ftHandle);
}

void Rack::reset()
{
    sendReset();
    platform::pauseMs(kResetPauseMs);
}

void Rack::sendReset()
{
    logWrite("reset\n");
    {
        platform::LockGuard guard(sendQueueGuard_);
        sendQueue_.clear();
    }
    lockHolder_.store(nullptr);
    for (size_t i = 0, n = readers_.size(); i < n; ++i) readers_[i]->setBlocked(false);
    cardEvents().notify();
    logWrite("ResettingRack: " + tracedBytes(TracedBytes::frame, RackFrame::resetFrame, 5) + "\n");
    writeMasterFrame(RackFrame::resetFrame);
}

void Rack::startEnumeration()
{
    if (!connected()) return;
    logWrite("enum\n");
    bringUpStartedAt_.store(platform::tickCount(), std::memory_order_release);
    bringUpRunning_.store(true, std::memory_order_release);
    logWrite("StartingEnum: " + tracedBytes(TracedBytes::frame, RackFrame::enumerateFrame, 5) + "\n");
    writeMasterFrame(RackFrame::enumerateFrame);
}

void Rack::finishEnumeration()
{
    // The driver's timer is back before the rack can answer, so a rack
    // that counts as enumerated runs on it.
    restoreTimerAfterBringUp();
    logWrite("c2\n");
    writeMasterFrame(RackFrame::statusCollectedFrame);
}

uint32_t Rack::countStatus()
{
    // Only the status thread counts, so a load and a store suffice.
    uint32_t count = statusCount_.load(std::memory_order_relaxed) + 1;
    statusCount_.store(count, std::memory_order_release);
    return count;
}
