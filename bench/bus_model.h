// The rack's bus as the benchmarks model it: the serial link (115,200 baud
// 8N1 each way), the FTDI chip's packet rule and latency timer, and the
// library's 5 ms receive poll and fixed pauses. The native benchmark and its
// Windows form both set their measurements beside these figures, so that a
// rate taken under Wine is read against the same device figure as a native
// one. Plain arithmetic: no platform, no library.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bus_model {

// ---- The link and the library's fixed waits ------------------------------

constexpr double kBytesPerSecond = 11520.0;  // 115,200 baud, 8N1, each way
constexpr double kDefaultTimerMs = 16.0;     // FTDI driver default; the library leaves it
constexpr size_t kUsbPacket = 62;            // payload of one USB packet
constexpr double kReceivePollMs = 5.0;       // pause of the receive loop
constexpr double kLateWriteMs = 1.0;         // a write this late after the pass that frees the bus
constexpr double kResetPauseMs = 1500.0;
constexpr double kSlotMapPauseMs = 3000.0;
constexpr size_t kAckBytes = 5;
constexpr size_t kMasterFrameBytes = 5;  // reset, enumerate, status collected, and the master's C2 reply
constexpr size_t kSlotMapBytes = 245;    // 240 map bytes in a frame

double wireMs(double bytes);

size_t frameBytes(size_t data);

// The first receive pass at or after `ms`, passes `pollMs` apart from 0 on;
// a period of 0 stands for a host that sees bytes the moment they are
// readable.
double nextPoll(double ms, double pollMs = kReceivePollMs);

// The line from the rack to the host, byte by byte, with the chip's packet
// rule: a packet leaves when 62 bytes have gathered, or `timerMs` after its
// first byte reached the chip (0: no timer, every byte leaves at once).
// Bytes are put on it in time order.
class ReturnLine {
public:
    explicit ReturnLine(double timerMs) : timerMs_(timerMs) {}

    // Puts `count` bytes on the line from `at` on (or when it is free);
    // returns the index of the last one.
    size_t put(double at, size_t count);

    // When byte `index` becomes readable by the host. Packets are closed up
    // to the one that holds it: a byte put after this call answers a frame
    // that the host sends on seeing it, so it reaches the chip too late to
    // join that packet.
    double readableAt(size_t index);

private:
    double timerMs_;
    std::vector<double> atChip_, readable_;
    size_t flushed_ = 0;
    double freeAt_ = 0;
};

// Frames that the rack sends back to back on an idle line from 0 on: the
// moment at which the last byte of each becomes readable by the host.
std::vector<double> readableAtMs(const std::vector<size_t>& frames, double timerMs);

// Mean time per exchange when exchanges follow each other on one rack. The
// bus carries one message at a time: the next frame may leave once the
// acknowledge of the last one has reached the host (when other slots wait;
// one thread alone waits for its answer). The host sees it at the first
// receive pass `pollMs` apart (0: at once), and the frame leaves `wakeMs`
// after that pass, the time the host takes to wake the thread that writes
// it. The slot acknowledges and answers when its frame has arrived. Each
// direction has its own 11,520 B/s, so an answer streams back while the
// next command goes out.
double polledCycleMs(size_t commandFrame, size_t replyFrame, bool waitForAnswer, double timerMs, double pollMs,
                     double wakeMs = 0);

// Which constant holds a figure down, from the limits of a figure where
// more is better: the wire alone, the wire and the receive poll, and those
// with the latency timer.
std::string boundOfRate(double wire, double wirePoll, double withTimer);

// One kind of card exchange and the limits for it.
struct Shape {
    std::string name;
    size_t command;  // APDU bytes
    size_t answer;   // answer bytes

    size_t commandFrame() const { return command + 5; }  // host frames have the short form only
    size_t answerFrame() const { return frameBytes(answer); }
    bool isShort() const { return command < 16; }
    const char* tag() const { return isShort() ? "short" : "long"; }

    // Write to the last answer byte readable, one exchange alone (timer 0:
    // the wire alone).
    double roundTripMs(double timerMs) const;

    double cycleRate(int threads, double timerMs, double pollMs, double wakeMs = 0) const;
    // The bus limit: the wire each way, one message at a time, the host
    // sending the moment the bus is free.
    double busRate(int threads) const { return cycleRate(threads, 0, 0); }
    // What the bus and the 5 ms receive poll allow together.
    double busPollRate(int threads, double wakeMs = 0) const
    {
        return cycleRate(threads, 0, kReceivePollMs, wakeMs);
    }
    // What the emulated device allows: the same with the chip's latency timer.
    double deviceRate(int threads, double timerMs, double wakeMs = 0) const
    {
        return cycleRate(threads, timerMs, kReceivePollMs, wakeMs);
    }
    // The timer counts as the bound also where it leaves the acknowledge
    // readable so close before a receive pass that a write a little late
    // costs a whole pass, which bus + poll alone would not.
    std::string bound(int threads, double timerMs) const;
};

}  // namespace bus_model
