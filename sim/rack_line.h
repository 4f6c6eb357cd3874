// The serial line from the rack to the host, and the FTDI chip's receive
// buffer at its end.
//
// The rack schedules chunks of bytes (a frame, or loose bytes) for a moment
// of simulated time. Chunks go on the line in the order of those moments;
// on a paced line each byte takes 1/11,520 s (115,200 baud, 8N1), and the
// chip hands received bytes to the host in USB packets: a packet leaves
// when 62 bytes have gathered or 16 ms after its first byte. On an unpaced
// line a chunk is readable at its moment.
//
// Nothing runs on its own: the owner calls commitNext() and flush() with the
// present time, and the line works out from timestamps what has happened
// since. Times are nanoseconds on the owner's clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>

#include "sim/rack_bytes.h"

namespace racksim {

using Nanos = int64_t;
constexpr Nanos kNever = std::numeric_limits<Nanos>::max();
constexpr Nanos kMillisecond = 1000000;

// 115,200 baud with 8 data bits, 1 start and 1 stop bit: 11,520 bytes/s.
constexpr Nanos kBytesPerSecond = 11520;
// The FTDI chip's latency timer and the payload of one USB packet.
constexpr Nanos kLatencyTimer = 16 * kMillisecond;
constexpr size_t kPacketPayload = 62;
// How long a held-back byte waits at most when frames are coalesced.
constexpr Nanos kCoalesceLimit = 50 * kMillisecond;

struct Chunk {
    Bytes bytes;
    int source = -1;             // address of the sender; -1 for loose bytes
    bool wholeFrame = false;     // a complete frame (counted, ends an exchange)
    bool commandAnswer = false;  // the answer to a card command
};

class RackLine {
public:
    void schedule(Nanos at, Chunk chunk);
    Nanos nextScheduled() const;

    // Puts the earliest scheduled chunk on the line and returns it.
    Chunk commitNext(bool paced);

    // Hands the bytes that have reached the host side by `now` over to the
    // readable part.
    void flush(Nanos now, bool paced);

    // Bytes the host can take now. With `coalesce`, bytes are held until at
    // least two chunks have ended among them or the oldest has waited
    // kCoalesceLimit.
    size_t readable(Nanos now, bool coalesce);

    // Takes up to `count` readable bytes; calls `ended(source, wholeFrame)`
    // for each chunk whose last byte was taken. Call readable() first.
    template <class Ended>
    size_t take(uint8_t* out, size_t count, Ended ended)
    {
        size_t n = count < released_ ? count : released_;
        for (size_t i = 0; i < n; ++i) {
            const LineByte& b = bytes_.front();
            out[i] = b.value;
            if (b.endsChunk) ended(b.source, b.wholeFrame);
            bytes_.pop_front();
        }
        released_ -= n;
        flushed_ -= n;
        return n;
    }

    // The chip's latency timer, as the device driver has it set.
    void setLatencyTimer(Nanos timer) { latencyTimer_ = timer; }
    Nanos latencyTimer() const { return latencyTimer_; }

    // The next moment after `now` at which flush() may hand bytes over
    // (kNever while nothing is on its way), so that a watcher can sleep
    // until then.
    Nanos nextHandOver(Nanos now, bool paced) const;

    // Forgets chunks not yet on the line (the rack dropped its work).
    void dropScheduled() { scheduled_.clear(); }
    // Forgets everything, as at open and close.
    void clear();

private:
    Nanos latencyTimer_ = kLatencyTimer;
    struct LineByte {
        uint8_t value;
        bool endsChunk;
        bool wholeFrame;
        int16_t source;
        Nanos atChip;       // fully received by the FTDI chip
        Nanos readableAt;   // handed over towards the host
    };

    std::multimap<Nanos, Chunk> scheduled_;
    std::deque<LineByte> bytes_;   // [0, flushed_) readable, the rest in flight
    size_t flushed_ = 0;
    size_t released_ = 0;          // readable bytes that coalescing lets go
    Nanos lineFreeAt_ = 0;
};

}  // namespace racksim
