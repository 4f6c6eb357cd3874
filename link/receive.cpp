// The receive thread: polls the device and feeds what waits there to the
// rack's frame assembler, which hands every whole frame to handleFrame.
// Only this thread reads from the link and touches the assembler.
#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/clock.h"

namespace {

// How long the link counts as busy after its last write or its last bytes
// (the poll rates are in fast_link.cpp).
constexpr uint32_t kBusyAfterMs = 250;
// While the device is lost the thread only waits for the word that it is
// back (requestReopen wakes it at once); this bounds a wake that went astray.
constexpr uint32_t kLostPauseMs = 100;

}  // namespace

void Rack::startReceiving(int64_t nowMs) { assembler_.linkSeen(nowMs); }

void Rack::receiveLoop()
{
    startReceiving(platform::wallClockMs());
    while (!stopping()) {
        if (lost()) {
            if (reopenWanted_.exchange(false, std::memory_order_acq_rel))
                comeBack();
            else
                workerPause(kLostPauseMs);
            continue;
        }
        const uint32_t writesSeen = linkWrites_.generation();
        pauseBetweenPolls(linkBusy(), writesSeen);
        receivePass(platform::wallClockMs());
        if (lossPending_.load(std::memory_order_acquire))
            loseLink();
        else if (giveUpPending_.load(std::memory_order_acquire))
            loseLink("bring-up failed");
    }
}

uint32_t Rack::receivePass(int64_t nowMs)
{
    // A failed status call must not leave the pass acting on the count of
    // an earlier one, so the count starts from 0 on every pass. The queue
    // is looked at before the give-up test: bytes waiting there mean the
    // link is not quiet, however long this thread was away.
    uint32_t waiting = 0;
    const FT_STATUS status = FT_GetQueueStatus(ftHandle, &waiting);
    noteLinkStatus(status);
    if (status != FT_OK) waiting = 0;
    if (assembler_.shouldGiveUp(nowMs, waiting)) assembler_.giveUp();
    if (waiting > 0) {
        linkMovedAt_.store(platform::tickCount(), std::memory_order_release);
        assembler_.linkSeen(nowMs);
        receiveBytes(waiting);
    }
    return waiting;
}

void Rack::receiveBytes(uint32_t waiting)
{
    uint32_t wanted = assembler_.bytesToRead(waiting);
    if (wanted > 0) {
        uint8_t chunk[FrameAssembler::largestRead] = {};
        uint32_t got = 0;
        const FT_STATUS status = FT_Read(ftHandle, chunk, wanted, &got);
        noteLinkStatus(status);
        if (status != FT_OK) got = 0;
        if (got > wanted) got = wanted;  // never trust a count beyond the request
        assembler_.append(chunk, got);
        logWrite("Received " + decimalText(assembler_.heldCount()) + " bytes from rack " + serial + ": " +
                 tracedBytes(TracedBytes::frame, assembler_.held(), static_cast<int32_t>(assembler_.heldCount())) + "\n");
    }
    assembler_.parse();
}

void Rack::noteLinkMoved()
{
    linkMovedAt_.store(platform::tickCount(), std::memory_order_release);
    linkWrites_.notify();
}

bool Rack::linkBusy()
{
    if (lockHolder_.load() != nullptr || assembler_.heldCount() > 0 || !enumerated()) return true;
    if (platform::tickCount() - linkMovedAt_.load(std::memory_order_acquire) < kBusyAfterMs) return true;
    return !sendQueueEmpty();
}
