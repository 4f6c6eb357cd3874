#include "link/rack.h"

#include "diag/text.h"
#include "diag/trace_log.h"
#include "platform/clock.h"
#include "reader/reader.h"
#include "reader/status_worker.h"

Rack::Rack(const char* serialNumber)
{
    serial = serialNumber ? serialNumber : "";
    FT_STATUS status = open(serial.c_str());
    if (status != FT_OK) throw static_cast<int32_t>(status);
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

FT_STATUS Rack::close()
{
    if (ftHandle == nullptr) return FT_OK;
    logWrite("Disconnecting from card rack\n");
    linkClosed_.store(true);
    return FT_Close(ftHandle);
}

void Rack::reset()
{
    logWrite("reset\n");
    {
        platform::LockGuard guard(sendQueueGuard_);
        sendQueue_.clear();
    }
    lockHolder_.store(nullptr);
    for (size_t i = 0, n = readers_.size(); i < n; ++i) readers_[i]->blocked.store(0, std::memory_order_release);
    cardEvents().notify();
    logWrite("ResettingRack: " + tracedBytes(TracedBytes::frame, RackFrame::resetFrame, 5) + "\n");
    uint32_t written = 0;
    FT_Write(ftHandle, const_cast<uint8_t*>(RackFrame::resetFrame), 5, &written);
    platform::pauseMs(1500);
}

void Rack::startEnumeration()
{
    if (!connected()) return;
    logWrite("enum\n");
    logWrite("StartingEnum: " + tracedBytes(TracedBytes::frame, RackFrame::enumerateFrame, 5) + "\n");
    uint32_t written = 0;
    FT_Write(ftHandle, const_cast<uint8_t*>(RackFrame::enumerateFrame), 5, &written);
}

void Rack::finishEnumeration()
{
    logWrite("c2\n");
    uint32_t written = 0;
    FT_Write(ftHandle, const_cast<uint8_t*>(RackFrame::statusCollectedFrame), 5, &written);
}

uint32_t Rack::countStatus()
{
    // Only the status thread counts, so a load and a store suffice.
    uint32_t count = statusCount_.load(std::memory_order_relaxed) + 1;
    statusCount_.store(count, std::memory_order_release);
    return count;
}
