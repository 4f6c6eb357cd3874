#include "sim/rack_line.h"

#include <algorithm>

namespace racksim {

void RackLine::schedule(Nanos at, Chunk chunk)
{
    // Equal moments keep the order in which they were scheduled.
    scheduled_.emplace(at, std::move(chunk));
}

Nanos RackLine::nextScheduled() const
{
    return scheduled_.empty() ? kNever : scheduled_.begin()->first;
}

Chunk RackLine::commitNext(bool paced)
{
    auto first = scheduled_.begin();
    Nanos at = first->first;
    Chunk chunk = std::move(first->second);
    scheduled_.erase(first);

    Nanos start = std::max(at, lineFreeAt_);
    size_t n = chunk.bytes.size();
    for (size_t i = 0; i < n; ++i) {
        LineByte b{};
        b.value = chunk.bytes[i];
        b.endsChunk = i + 1 == n;
        b.wholeFrame = chunk.wholeFrame;
        b.source = static_cast<int16_t>(chunk.source);
        // Whole-second multiples keep the rate exact over long runs.
        b.atChip = paced ? start + static_cast<Nanos>(i + 1) * 1000000000 / kBytesPerSecond : start;
        b.readableAt = kNever;
        bytes_.push_back(b);
    }
    if (n > 0) lineFreeAt_ = bytes_.back().atChip;
    return chunk;
}

void RackLine::flush(Nanos now, bool paced)
{
    while (flushed_ < bytes_.size()) {
        Nanos first = bytes_[flushed_].atChip;
        if (first > now) break;
        size_t end = flushed_;
        Nanos sendAt;
        if (paced) {
            // One USB packet: full at 62 bytes, or sent by the latency timer.
            Nanos timerAt = first + latencyTimer_;
            while (end < bytes_.size() && end - flushed_ < kPacketPayload && bytes_[end].atChip <= timerAt) ++end;
            sendAt = end - flushed_ == kPacketPayload ? bytes_[end - 1].atChip : timerAt;
        } else {
            while (end < bytes_.size() && bytes_[end].atChip <= now) ++end;
            sendAt = first;
        }
        if (sendAt > now) break;
        for (size_t i = flushed_; i < end; ++i) bytes_[i].readableAt = sendAt;
        flushed_ = end;
    }
}

size_t RackLine::readable(Nanos now, bool coalesce)
{
    if (!coalesce || released_ >= flushed_) {
        released_ = flushed_;
        return released_;
    }
    size_t ends = 0;
    for (size_t i = 0; i < flushed_ && ends < 2; ++i)
        if (bytes_[i].endsChunk) ++ends;
    if (ends >= 2 || now - bytes_[released_].readableAt >= kCoalesceLimit) released_ = flushed_;
    return released_;
}

Nanos RackLine::nextHandOver(Nanos now, bool paced) const
{
    if (flushed_ >= bytes_.size()) return kNever;
    Nanos first = bytes_[flushed_].atChip;
    if (first > now || !paced) return first;
    // A packet leaves when it is full or when the timer runs out.
    Nanos at = first + latencyTimer_;
    if (bytes_.size() - flushed_ >= kPacketPayload) at = std::min(at, bytes_[flushed_ + kPacketPayload - 1].atChip);
    return at;
}

void RackLine::clear()
{
    scheduled_.clear();
    bytes_.clear();
    flushed_ = 0;
    released_ = 0;
    lineFreeAt_ = 0;
}

}  // namespace racksim
