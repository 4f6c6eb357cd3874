#include "bench/bus_model.h"

#include <algorithm>
#include <cmath>

namespace bus_model {

double wireMs(double bytes) { return bytes * 1000.0 / kBytesPerSecond; }

size_t frameBytes(size_t data) { return data > 255 ? data + 6 : data + 5; }

double nextPoll(double ms, double pollMs)
{
    return pollMs > 0 ? std::ceil(ms / pollMs - 1e-9) * pollMs : ms;
}

size_t ReturnLine::put(double at, size_t count)
{
    double start = std::max(at, freeAt_);
    for (size_t i = 0; i < count; ++i) atChip_.push_back(start + wireMs(static_cast<double>(i + 1)));
    freeAt_ = atChip_.back();
    readable_.resize(atChip_.size(), -1);
    return atChip_.size() - 1;
}

double ReturnLine::readableAt(size_t index)
{
    while (flushed_ <= index) {
        size_t end = flushed_ + 1;
        double sendAt = atChip_[flushed_];
        if (timerMs_ > 0) {
            double timer = atChip_[flushed_] + timerMs_;
            end = flushed_;
            while (end < atChip_.size() && end - flushed_ < kUsbPacket && atChip_[end] <= timer) ++end;
            sendAt = end - flushed_ == kUsbPacket ? atChip_[end - 1] : timer;
        }
        for (size_t i = flushed_; i < end; ++i) readable_[i] = sendAt;
        flushed_ = end;
    }
    return readable_[index];
}

std::vector<double> readableAtMs(const std::vector<size_t>& frames, double timerMs)
{
    ReturnLine line(timerMs);
    std::vector<size_t> last;
    for (size_t f : frames) last.push_back(line.put(0, f));
    std::vector<double> ends;
    for (size_t i : last) ends.push_back(line.readableAt(i));
    return ends;
}

double polledCycleMs(size_t commandFrame, size_t replyFrame, bool waitForAnswer, double timerMs, double pollMs,
                     double wakeMs)
{
    const int exchanges = 120, settle = 20;
    ReturnLine line(timerMs);
    double outFreeAt = 0, writeAt = 0, firstAt = 0;
    for (int done = 0; done <= exchanges; ++done) {
        double arrives = std::max(writeAt, outFreeAt) + wireMs(static_cast<double>(commandFrame));
        outFreeAt = arrives;
        size_t ack = line.put(arrives, kAckBytes);
        size_t answer = line.put(arrives, replyFrame);
        writeAt = nextPoll(line.readableAt(waitForAnswer ? answer : ack), pollMs) + (pollMs > 0 ? wakeMs : 0);
        if (done == settle) firstAt = writeAt;
    }
    return (writeAt - firstAt) / (exchanges - settle);
}

std::string boundOfRate(double wire, double wirePoll, double withTimer)
{
    if (withTimer < wirePoll * 0.98) return "latency timer";
    if (wirePoll < wire * 0.98) return "5 ms poll";
    return "wire";
}

double Shape::roundTripMs(double timerMs) const
{
    return wireMs(static_cast<double>(commandFrame())) + readableAtMs({kAckBytes, answerFrame()}, timerMs)[1];
}

double Shape::cycleRate(int threads, double timerMs, double pollMs, double wakeMs) const
{
    return 1000.0 / polledCycleMs(commandFrame(), answerFrame(), threads == 1, timerMs, pollMs, wakeMs);
}

std::string Shape::bound(int threads, double timerMs) const
{
    double late = deviceRate(threads, timerMs, kLateWriteMs);
    if (late < busPollRate(threads, kLateWriteMs) * 0.98) return "latency timer";
    return boundOfRate(busRate(threads), busPollRate(threads), deviceRate(threads, timerMs));
}

}  // namespace bus_model
