// One message at a time on the rack's bus. A reader with a frame in its
// outgoing mailbox takes a turn in the send queue; the rack lock
// (lockHolder) names the reader whose frame is on its way and whose first
// answer has not come back. The step from a free lock to a written frame
// runs under sendMutex, which is only ever tried.
#include <cstring>
#include <mutex>

#include "diag/trace_log.h"
#include "link/rack.h"
#include "reader/reader.h"

void Rack::enqueue(Reader* reader)
{
    {
        std::lock_guard<platform::ExclusiveLock> guard(sendQueueGuard_);
        sendQueue.push_back(reader);
    }
    if (lockHolder.load() == nullptr) trySendNext();
}

bool Rack::sendQueueEmpty() { return queuedTurns() == 0; }

size_t Rack::queuedTurns()
{
    std::lock_guard<platform::ExclusiveLock> guard(sendQueueGuard_);
    return sendQueue.size();
}

void Rack::trySendNext()
{
    for (;;) {
        if (!sendMutex.tryLock()) return;
        if (lockHolder.load() == nullptr) {
            Reader* next = nullptr;
            {
                // The turn, the slot's frame count and the lock are taken
                // together under the queue's guard, so that a release that
                // depends on the frame count (unlockIfHeldFor) sees all or
                // none of them.
                std::lock_guard<platform::ExclusiveLock> guard(sendQueueGuard_);
                if (!sendQueue.empty()) {
                    next = sendQueue.front();
                    sendQueue.pop_front();
                    next->framesSent.fetch_add(1, std::memory_order_acq_rel);
                    // The lock is taken before the write, so the answer
                    // can't overtake it.
                    lockHolder.store(next);
                }
            }
            if (next != nullptr) next->send(ftHandle);
        }
        sendMutex.unlock();
        // A release or an enqueue that lost the try-lock to us while we held
        // the mutex has left its turn with us: look once more, so that no
        // message stays queued behind a free lock with nobody to send it.
        if (lockHolder.load() != nullptr || sendQueueEmpty()) return;
    }
}

void Rack::unlock()
{
    lockHolder.store(nullptr);
    trySendNext();
}

bool Rack::unlockIfHeldBy(uint32_t address)
{
    logWrite("Checking");
    Reader* holder = lockHolder.load();
    if (holder == nullptr || holder->address != address) return false;
    logWrite("match");
    // Only this holder's release counts: if another thread released it and
    // the next reader already took the lock meanwhile, that lock stays.
    if (!lockHolder.compare_exchange_strong(holder, nullptr)) return false;
    trySendNext();
    return true;
}

bool Rack::unlockIfHeldFor(Reader* reader, uint32_t framesSentThen)
{
    logWrite("Checking");
    bool released = false;
    {
        std::lock_guard<platform::ExclusiveLock> guard(sendQueueGuard_);
        if (lockHolder.load() == reader && reader->framesSent.load(std::memory_order_acquire) == framesSentThen) {
            lockHolder.store(nullptr);
            released = true;
        }
    }
    if (!released) return false;
    logWrite("match");
    trySendNext();
    return true;
}

void Rack::selectProtocol(Reader* reader)
{
    uint8_t command = reader->protocol() == 1 ? RackFrame::commandSelectT1 : RackFrame::commandSelectT0;
    reader->writeMailbox(true, &command, 1);
    enqueue(reader);
}

void Rack::requestStatus(Reader* reader)
{
    uint8_t command = RackFrame::commandStatusRequest;
    reader->writeMailbox(true, &command, 1);
    enqueue(reader);
}

void Rack::forwardToReader(Reader* reader, const uint8_t* bytes, uint32_t count, Direction direction)
{
    if (direction == Direction::fromReader) {
        reader->writeMailbox(false, bytes, count);
        return;
    }
    uint8_t payload[RackFrame::largestOutgoing] = {};
    if (count > RackFrame::largestOutgoing - 5) count = RackFrame::largestOutgoing - 5;
    payload[0] = RackFrame::commandCardApdu;
    if (count > 0) std::memcpy(payload + 1, bytes, count);
    reader->writeMailbox(true, payload, count + 1);
    reader->clearIncoming();
    enqueue(reader);
}
