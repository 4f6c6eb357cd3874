// One message at a time on the rack's bus. A reader with a frame in its
// outgoing mailbox takes a turn in the send queue; the rack lock
// (lockHolder) names the reader whose frame is on its way and whose first
// answer has not come back. The step from a free lock to a written frame
// runs under sendMutex_, which is only ever tried.
#include <cstring>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "platform/clock.h"
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
                // depends on the frame count (releaseLock) sees all or
                // none of them.
                platform::LockGuard guard(sendQueueGuard_);
                if (!sendQueue_.empty()) {
                    next = sendQueue_.front();
                    sendQueue_.pop_front();
                    next->countFrameSent();
                    // The lock is taken before the write, so the answer
                    // can't overtake it.
                    lockHolder_.store(next);
                }
            }
            if (next != nullptr) {
                const FT_STATUS status = writeFrameOf(next);
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

// Takes the reader's outgoing frame and writes it to the device link; the
// FT status of the write. The reader learns the outcome either way, which
// wakes the host thread waiting for its frame to leave.
FT_STATUS Rack::writeFrameOf(Reader* reader)
{
    uint8_t frame[Mailbox::capacity] = {};
    uint32_t size = reader->takeOutgoing(frame);
    // Nothing longer than the largest outgoing frame is ever handed to the
    // device, whatever the mailbox says.
    if (size > RackFrame::largestOutgoing) size = RackFrame::largestOutgoing;

    int64_t before = platform::calendarSeconds();
    uint32_t written = 0;
    FT_STATUS status = FT_Write(ftHandle, frame, size, &written);
    int64_t after = platform::calendarSeconds();
    noteLinkMoved();

    if (status != FT_OK) {
        logWrite("FT_Write failed - " + decimalText(static_cast<uint32_t>(status)));
        reader->noteSendFailed();
        return status;
    }
    reader->noteSent();
    logWrite(reader->name + " Tx - " + tracedBytes(TracedBytes::frame, frame, static_cast<int32_t>(size)) + ": " +
             fixedText(static_cast<double>(after - before)) + "\n");
    return status;
}

void Rack::freeBus()
{
    lockHolder_.store(nullptr);
    trySendNext();
}

// Both the reply that came for the holder's frame (the receive thread, by
// the frame's address) and a host thread that ends its wait release the
// lock here. With `onlyForFrame`, the status thread's release: the holder's
// frame count is tested together with the holder, under the queue's guard
// that also keeps the take of a turn, its count and the lock together (see
// trySendNext). The test and the store are one step under the guard, so a
// release never frees a lock that another thread already released and the
// next reader took meanwhile.
bool Rack::releaseLockOf(Reader* reader, bool onlyForFrame, uint32_t framesSentThen)
{
    logWrite("Checking");
    bool released = false;
    if (reader != nullptr) {
        platform::LockGuard guard(sendQueueGuard_);
        if (lockHolder_.load() == reader && (!onlyForFrame || reader->framesSent() == framesSentThen)) {
            lockHolder_.store(nullptr);
            released = true;
        }
    }
    if (!released) return false;
    logWrite("match");
    trySendNext();
    return true;
}

void Rack::putPayload(Reader* reader, const uint8_t* payload, uint32_t count)
{
    // Room for the largest frame the host sends; a longer payload is cut
    // rather than written past the buffer.
    uint8_t work[RackFrame::largestOutgoing] = {};
    if (count > RackFrame::largestOutgoing - 4) count = RackFrame::largestOutgoing - 4;
    if (count == 0) return;
    std::memcpy(work, payload, count);
    const uint32_t size = wrapFrame(work, count, static_cast<uint8_t>(reader->address));
    reader->putOutgoing(work, size);
}

void Rack::selectProtocol(Reader* reader)
{
    uint8_t command = reader->protocol() == 1 ? RackFrame::commandSelectT1 : RackFrame::commandSelectT0;
    putPayload(reader, &command, 1);
    // The answer flag is cleared before the message goes out, so that a
    // frame an earlier exchange left behind cannot pass for the answer.
    reader->clearIncoming();
    enqueue(reader);
}

void Rack::requestStatus(Reader* reader)
{
    uint8_t command = RackFrame::commandStatusRequest;
    putPayload(reader, &command, 1);
    enqueue(reader);
}

void Rack::sendCommand(Reader* reader, const uint8_t* bytes, uint32_t count)
{
    uint8_t payload[RackFrame::largestOutgoing] = {};
    if (count > RackFrame::largestOutgoing - 5) count = RackFrame::largestOutgoing - 5;
    payload[0] = RackFrame::commandCardApdu;
    if (count > 0) std::memcpy(payload + 1, bytes, count);
    putPayload(reader, payload, count + 1);
    reader->clearIncoming();
    enqueue(reader);
}
