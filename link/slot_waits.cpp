#include "link/slot_waits.h"

#include "diag/trace_log.h"
#include "platform/clock.h"
#include "reader/reader.h"

namespace {

// The write wait: 120 s in all, as long as its 120,000 passes of 1 ms
// took when it polled. A thread queued behind the other slots of a busy
// rack used to wake every millisecond and trace each pass, which with tens
// of queued threads took more processor than the exchanges themselves and
// grew the log by megabytes a second; now it sleeps until the frame is
// written (the link wakes it) and traces, if at all, once a second. Other
// wakes of the reader's activity (a frame from the slot, a turn given back)
// sleep on to the same second.
constexpr uint32_t kWriteWaitMs = 120000;
constexpr uint32_t kWriteTraceEveryMs = 1000;

bool sendCannotComplete(const Reader& reader, uint32_t failuresBefore)
{
    return reader.sendFailures() != failuresBefore || !reader.available();
}

}  // namespace

bool waitForFrameToLeave(Reader& reader, uint32_t failuresBefore, SendWaitTrace trace)
{
    const platform::Signal::Deadline limit = platform::Signal::deadlineIn(kWriteWaitMs);
    while (reader.hasSent() == 0) {
        if (sendCannotComplete(reader, failuresBefore)) return false;
        if (platform::Signal::reached(limit)) return false;
        platform::Signal::Deadline wakeBy = limit;
        if (trace == SendWaitTrace::everySecond) {
            logWrite("waiting for send\n");
            wakeBy = platform::Signal::earlier(platform::Signal::deadlineIn(kWriteTraceEveryMs), limit);
        }
        for (;;) {
            const uint32_t seen = reader.activitySeen();
            if (reader.hasSent() != 0) return true;
            if (sendCannotComplete(reader, failuresBefore)) return false;
            if (!reader.awaitActivity(seen, wakeBy)) break;
        }
    }
    return true;
}

ReplyLimit ReplyLimit::wholeTickSeconds(uint32_t seconds)
{
    ReplyLimit limit;
    limit.wholeSeconds_ = true;
    limit.amount_ = seconds;
    return limit;
}

ReplyLimit ReplyLimit::milliseconds(uint32_t milliseconds)
{
    ReplyLimit limit;
    limit.amount_ = milliseconds;
    return limit;
}

// A running limit: started with the wait, it tells whether its time is up
// and until when the wait may sleep before its test can change.
class ReplyClock {
public:
    explicit ReplyClock(const ReplyLimit& limit)
        : wholeSeconds_(limit.wholeSeconds_), amount_(limit.amount_), start_(platform::tickCount()),
          deadline_(platform::Signal::deadlineIn(limit.wholeSeconds_ ? 0 : limit.amount_))
    {
    }

    uint32_t start() const { return start_; }

    // Reads the clock; true once the limit is reached. `lastTick` gets the
    // tick counter's reading on the whole-second clock.
    bool passed(uint32_t& lastTick)
    {
        if (!wholeSeconds_) return platform::Signal::reached(deadline_);
        lastTick = platform::tickCount();
        reachedMs_ = start_ % 1000 + static_cast<uint32_t>(lastTick - start_);
        return reachedMs_ / 1000 >= amount_;
    }

    // After passed() said no: the moment the test can next change.
    platform::Signal::Deadline nextChange() const
    {
        if (!wholeSeconds_) return deadline_;
        return platform::Signal::deadlineIn(static_cast<uint32_t>(amount_ * 1000ull - reachedMs_));
    }

private:
    const bool wholeSeconds_;
    const uint32_t amount_;
    const uint32_t start_;
    const platform::Signal::Deadline deadline_;
    uint64_t reachedMs_ = 0;
};

void waitForSlotReply(Reader& reader, const ReplyWatch& watch, SlotReply& reply)
{
    ReplyClock clock(watch.limit);
    reply.lastTick = clock.start();
    for (;;) {
        const uint32_t seen = reader.activitySeen();
        if (reader.answerWaiting()) {
            uint32_t sentWhenStored = 0;
            reply.length = reader.takeIncoming(reply.frame, Mailbox::Taker::exchange, &sentWhenStored, &reply.number);
            // Every incoming frame carries the slot's count of frames sent
            // at its arrival, so one stored before our frame went out is an
            // answer to something earlier.
            if (watch.onlyAnswerTo && static_cast<int32_t>(sentWhenStored - watch.ourFrame) < 0) {
                logWrite(reader.name + " stale answer passed over\n");
                continue;
            }
            reply.outcome = SlotReply::Outcome::arrived;
            return;
        }
        const bool gone = watch.endOnCardEvent ? reader.eventCount() != watch.cardEvents : !reader.available();
        if (gone) {
            reply.outcome = SlotReply::Outcome::gone;
            return;
        }
        if (clock.passed(reply.lastTick)) {
            reply.outcome = SlotReply::Outcome::timedOut;
            return;
        }
        reader.awaitActivity(seen, clock.nextChange());
    }
}
