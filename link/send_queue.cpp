// One message at a time on the rack's bus. A reader with a frame in its
// outgoing mailbox takes a turn in the send queue; the rack lock
// (lockHolder) names the reader whose frame is on its way and whose first
// answer has not come back. The step from a free lock to a written frame
// runs under sendMutex_, which is only ever tried.
#include <cstring>

#include "diag/trace_log.h"
#include "link/rack.h"
#include "reader/reader.h"

void Rack::enqueue(Reader* reader)
{
    {
        platform::LockGuard guard(sendQueueGuard_);
        sendQueue_.push_back(reader);
    }
    if (lockHolder_.load() == nullptr) trySendNext();
}

bool Rack::sendQueueEmpty() { return queuedTurns() == 0; }

size_t Rack::queuedTurns()
{
    platform::LockGuard guard(sendQueueGuard_);
    return sendQueue_.size();
}

void Rack::trySendNext()
{
    for (;;) {
        if (!sendMutex_.tryLock()) return;
        if (lost()) {
            // Nothing goes to a closed link: the waiting exchanges learn of
            // the loss from their readers.
            {
                platform::LockGuard guard(sendQueueGuard_);
                sendQueue_.clear();
            }
            sendMutex_.unlock();
            return;
        }
        if (lockHolder_.load() == nullptr) {
            Reader* next = nullptr;
            {
                // The turn, the slot's frame count and the lock are taken
                // together under the queue's guard, so that a release that
                // depends on the frame count (unlockIfHeldFor) sees all or
                // none of them.
                platform::LockGuard guard(sendQueueGuard_);
                if (!sendQueue_.empty()) {
                    next = sendQueue_.front();
                    sendQueue_.pop_front();
                    next->framesSent.fetch_add(1, std::memory_order_acq_rel);
                    // The lock is taken before the write, so the answer
                    // can't overtake it.
                    lockHolder_.store(next);
                }
            }
            if (next != nullptr) {
                const FT_STATUS status = next->send(ftHandle);
                noteLinkStatus(status);
                // A frame that never reached the device gets no answer to
                // free the lock: the turn is over, the lock goes to the next
                // one, and the reader's exchange learns of the failure.
                if (status != FT_OK) {
                    Reader* holder = next;
                    lockHolder_.compare_exchange_strong(holder, nullptr);
                }
            }
        }
        sendMutex_.unlock();
        // A release or an enqueue that lost the try-lock to us while we held
        // the mutex has left its turn with us: look once more, so that no
        // message stays queued behind a free lock with nobody to send it.
        if (lockHolder_.load() != nullptr || sendQueueEmpty()) return;
    }
}

void Rack::withdrawTurns(Reader* reader)
{
    platform::LockGuard guard(sendQueueGuard_);
    for (auto turn = sendQueue_.begin(); turn != sendQueue_.end();)
        turn = *turn == reader ? sendQueue_.erase(turn) : turn + 1;
}

void Rack::unlock()
{
    lockHolder_.store(nullptr);
    trySendNext();
}

bool Rack::unlockIfHeldBy(uint32_t address)
{
    logWrite("Checking");
    Reader* holder = lockHolder_.load();
    if (holder == nullptr || holder->address != address) return false;
    logWrite("match");
    // Only this holder's release counts: if another thread released it and
    // the next reader already took the lock meanwhile, that lock stays.
    if (!lockHolder_.compare_exchange_strong(holder, nullptr)) return false;
    trySendNext();
    return true;
}

bool Rack::unlockIfHeldFor(Reader* reader, uint32_t framesSentThen)
{
    logWrite("Checking");
    bool released = false;
    {
        platform::LockGuard guard(sendQueueGuard_);
        if (lockHolder_.load() == reader && reader->framesSent.load(std::memory_order_acquire) == framesSentThen) {
            lockHolder_.store(nullptr);
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
    // The answer flag is cleared before the message goes out, so that a
    // frame an earlier exchange left behind cannot pass for the answer.
    reader->clearIncoming();
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
