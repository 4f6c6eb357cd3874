// The library against the rack emulator with wire pacing on: how close its
// exchanges, its bring-up and its waits come to the limits that the serial
// link (115,200 baud 8N1, 11,520 bytes/s each way), the FTDI chip's 16 ms
// latency timer and the library's own fixed pauses and 5 ms receive poll
// put on them. Everything runs in real time. Prints the tables, and writes
// report.md and exchanges.svg into the output folder. Asserts nothing.
//
//   pcsc_bench [--out DIR] [--quick]
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diag/trace_log.h"
#include "pcsc/registry.h"
#include "pcsc/registry_testing.h"
#include "pcsc/winscard_api.h"
#include "platform/test_seam.h"
#include "sim/rack_sim.h"

namespace {

using Clock = std::chrono::steady_clock;

// ---- The link and the library's fixed waits ------------------------------

constexpr double kBytesPerSecond = 11520.0;  // 115,200 baud, 8N1, each way
constexpr double kLatencyTimerMs = 16.0;     // FTDI default; the library leaves it
constexpr size_t kUsbPacket = 62;            // payload of one USB packet
constexpr double kReceivePollMs = 5.0;       // pause of the receive loop
constexpr double kKickOffPauseMs = 1000.0;
constexpr double kResetPauseMs = 1500.0;
constexpr double kSlotMapPauseMs = 3000.0;
constexpr size_t kAckBytes = 5;
constexpr size_t kMasterFrameBytes = 5;  // reset, enumerate, status collected, and the master's C2 reply
constexpr size_t kSlotMapBytes = 245;    // 240 map bytes in a frame

double wireMs(double bytes) { return bytes * 1000.0 / kBytesPerSecond; }

size_t frameBytes(size_t data) { return data > 255 ? data + 6 : data + 5; }

// Frames that the rack sends back to back on an idle line: the moment, in
// ms after the rack starts sending, at which the last byte of each becomes
// readable by the host. Without the latency timer a byte is readable when
// it has crossed the wire; with it, the chip hands bytes on in packets of
// 62, or 16 ms after the first byte of a packet that does not fill.
std::vector<double> readableAtMs(const std::vector<size_t>& frames, bool latencyTimer)
{
    size_t total = 0;
    for (size_t f : frames) total += f;
    std::vector<double> release(total);
    auto atChip = [](size_t i) { return wireMs(static_cast<double>(i + 1)); };
    if (!latencyTimer) {
        for (size_t i = 0; i < total; ++i) release[i] = atChip(i);
    } else {
        size_t first = 0;
        while (first < total) {
            double timer = atChip(first) + kLatencyTimerMs;
            size_t end = first;
            while (end < total && end - first < kUsbPacket && atChip(end) <= timer) ++end;
            double sendAt = end - first == kUsbPacket ? atChip(end - 1) : timer;
            for (size_t i = first; i < end; ++i) release[i] = sendAt;
            first = end;
        }
    }
    std::vector<double> ends;
    size_t at = 0;
    for (size_t f : frames) {
        at += f;
        ends.push_back(release[at - 1]);
    }
    return ends;
}

double nextPoll(double ms) { return std::ceil(ms / kReceivePollMs - 1e-9) * kReceivePollMs; }

// The line from the rack to the host, byte by byte, with the chip's packet
// rule when the latency timer is on. Bytes are put on it in time order.
class ReturnLine {
public:
    explicit ReturnLine(bool latencyTimer) : latencyTimer_(latencyTimer) {}

    // Puts `count` bytes on the line from `at` on (or when it is free);
    // returns the index of the last one.
    size_t put(double at, size_t count)
    {
        double start = std::max(at, freeAt_);
        for (size_t i = 0; i < count; ++i) atChip_.push_back(start + wireMs(static_cast<double>(i + 1)));
        freeAt_ = atChip_.back();
        readable_.resize(atChip_.size(), -1);
        return atChip_.size() - 1;
    }

    // True if byte `index` can be read by the host at `now`.
    bool readableBy(size_t index, double now)
    {
        while (flushed_ < atChip_.size()) {
            double first = atChip_[flushed_];
            if (first > now) break;
            size_t end = flushed_ + 1;
            double sendAt = first;
            if (latencyTimer_) {
                double timer = first + kLatencyTimerMs;
                end = flushed_;
                while (end < atChip_.size() && end - flushed_ < kUsbPacket && atChip_[end] <= timer) ++end;
                sendAt = end - flushed_ == kUsbPacket ? atChip_[end - 1] : timer;
            }
            if (sendAt > now) break;
            for (size_t i = flushed_; i < end; ++i) readable_[i] = sendAt;
            flushed_ = end;
        }
        return readable_[index] >= 0 && readable_[index] <= now;
    }

private:
    bool latencyTimer_;
    std::vector<double> atChip_, readable_;
    size_t flushed_ = 0;
    double freeAt_ = 0;
};

// Mean time per exchange when exchanges follow each other on one rack, the
// receive thread polling every 5 ms. The next frame goes out at the poll
// that sees the acknowledge (the rack lock is freed on it) when other slots
// wait, or the answer when one thread works alone; the slot acknowledges
// and answers when the frame has arrived. Each direction has its own
// 11,520 B/s.
double polledCycleMs(size_t commandFrame, size_t replyFrame, bool waitForAnswer, bool latencyTimer)
{
    const int exchanges = 120, settle = 20;
    ReturnLine line(latencyTimer);
    double outFreeAt = 0, firstAt = 0, lastAt = 0;
    size_t ack = 0, answer = 0;
    auto write = [&](double at) {
        double arrives = std::max(at, outFreeAt) + wireMs(static_cast<double>(commandFrame));
        outFreeAt = arrives;
        ack = line.put(arrives, kAckBytes);
        answer = line.put(arrives, replyFrame);
    };
    write(0);
    int done = 0;
    for (long poll = 1; done < exchanges; ++poll) {
        double now = static_cast<double>(poll) * kReceivePollMs;
        if (!line.readableBy(waitForAnswer ? answer : ack, now)) continue;
        if (++done == settle) firstAt = now;
        lastAt = now;
        write(now);
    }
    return (lastAt - firstAt) / (exchanges - settle);
}

// One kind of card exchange and the limits for it.
struct Shape {
    std::string name;
    size_t command;  // APDU bytes
    size_t answer;   // answer bytes

    size_t commandFrame() const { return command + 5; }  // host frames have the short form only
    size_t answerFrame() const { return frameBytes(answer); }
    size_t bothWays() const { return commandFrame() + kAckBytes + answerFrame(); }

    // Write to the last answer byte readable, one exchange alone.
    double roundTripMs(bool latencyTimer) const
    {
        return wireMs(static_cast<double>(commandFrame())) + readableAtMs({kAckBytes, answerFrame()}, latencyTimer)[1];
    }
    // The bus limit: every byte of the exchange, both ways, on 11,520 B/s.
    double busRate() const { return kBytesPerSecond / static_cast<double>(bothWays()); }

    // Exchanges/s with the 5 ms poll (see polledCycleMs).
    double polledRate(int threads, bool latencyTimer) const
    {
        return 1000.0 / polledCycleMs(commandFrame(), answerFrame(), threads == 1, latencyTimer);
    }
    // What the bus and the 5 ms poll allow together (no latency timer).
    double busPollRate(int threads) const { return std::min(busRate(), polledRate(threads, false)); }
    // What the emulated device allows: wire each way, latency timer, poll.
    double deviceRate(int threads) const { return polledRate(threads, true); }
};

// ---- Measuring ----------------------------------------------------------

double msSince(Clock::time_point start) { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

double processCpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
}

double threadCpuMs(pthread_t thread)
{
    clockid_t id;
    if (pthread_getcpuclockid(thread, &id) != 0) return 0;
    timespec t{};
    clock_gettime(id, &t);
    return t.tv_sec * 1000.0 + t.tv_nsec / 1e6;
}

double ownThreadCpuMs()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1000.0 + t.tv_nsec / 1e6;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::min(values.size() - 1, rank > 0 ? rank - 1 : 0)];
}

double mean(const std::vector<double>& values)
{
    double sum = 0;
    for (double v : values) sum += v;
    return values.empty() ? 0 : sum / static_cast<double>(values.size());
}

std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

std::string percent(double part, double whole) { return whole > 0 ? fmt("%.0f%%", part / whole * 100.0) : "-"; }

// ---- The library's log ---------------------------------------------------

std::string g_benchLog;

// Starts the log afresh: the next entry empties the file.
void restartLog()
{
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
    g_logPath.clear();
    std::remove(g_benchLog.c_str());
}

// Entries in the log, each of which starts with a stamp "... [phase]\t",
// and the size of the file.
size_t logEntries(size_t* bytes = nullptr)
{
    std::ifstream file(g_benchLog, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    size_t count = 0;
    for (size_t at = text.find("]\t"); at != std::string::npos; at = text.find("]\t", at + 2)) ++count;
    if (bytes) *bytes = text.size();
    return count;
}

// ---- The rack ------------------------------------------------------------

const std::vector<uint8_t> kAtr{0x3B, 0x80, 0x01};  // offers T=1
const std::vector<BYTE> kShortCommand{0x00, 0xB0, 0x00, 0x00, 0x02};
const std::vector<uint8_t> kShortAnswer{0x90, 0x00};

std::string readerName(const std::string& serial, int address) { return "Tessel " + serial + " R" + std::to_string(address); }

struct BringUp {
    int slots = 0;
    double enumeratedMs = -1;  // KickOff to all racks enumerated
    double contextMs = -1;     // KickOff to the return of SCardEstablishContext
    double resetMs = -1, enumerateMs = -1, firstStatusMs = -1, lastStatusMs = -1, collectedMs = -1;
    // Bounds for the same frames.
    double wireMsTotal = 0;
    double fixedPausesMs = kKickOffPauseMs + kResetPauseMs + kSlotMapPauseMs;
    double criticalPathMs = 0;  // pauses on the path here plus wire
    double deviceMs = 0;        // with latency timer and polls
};

struct Rig {
    int device = -1;
    std::string serial;
    int slots = 0;
    SCARDCONTEXT context = 0;
};

// Configures one rack of `slots` slots with cards, starts the library and
// measures the bring-up. The library stays up.
BringUp startRack(Rig& rig, const std::string& serial, int slots)
{
    rackSimReset();
    restartLog();
    rig.serial = serial;
    rig.slots = slots;
    rig.device = rackSimAddDevice("Smart Card Rack", serial.c_str());
    Clock::time_point added = Clock::now();
    rackSimAddSlots(rig.device, 1, slots);
    for (int a = 1; a <= slots; ++a) {
        rackSimInsertCard(rig.device, a, kAtr.data(), static_cast<int>(kAtr.size()));
        rackSimSetFixedAnswer(rig.device, a, kShortAnswer.data(), static_cast<int>(kShortAnswer.size()));
    }
    rackSimSetWireRealism(rig.device, 1);

    BringUp b;
    b.slots = slots;
    std::atomic<bool> quit{false};
    Clock::time_point start = Clock::now();
    std::thread watcher([&] {
        while (!quit.load() && !allRacksEnumerated()) std::this_thread::sleep_for(std::chrono::microseconds(500));
        if (allRacksEnumerated()) b.enumeratedMs = msSince(start);
    });
    KickOff();
    SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &rig.context);
    b.contextMs = msSince(start);
    quit.store(true);
    watcher.join();

    // The moments of the host's writes, from the emulator's wire log.
    const double offsetMs = std::chrono::duration<double, std::milli>(start - added).count();
    std::vector<uint8_t> frame(300);
    for (int i = 0, n = rackSimWireLogCount(rig.device); i < n; ++i) {
        long long us = 0;
        int length = rackSimWireLogEntry(rig.device, i, frame.data(), static_cast<int>(frame.size()), &us);
        if (length < 4) continue;
        double at = static_cast<double>(us) / 1000.0 - offsetMs;
        if (frame[1] == 0 && frame[3] == 0xF0 && b.resetMs < 0) b.resetMs = at;
        if (frame[1] == 0 && frame[3] == 0xC1 && b.enumerateMs < 0) b.enumerateMs = at;
        if (frame[1] == 0 && frame[3] == 0xC2) b.collectedMs = at;
        if (frame[1] != 0 && frame[3] == 0x00) {
            if (b.firstStatusMs < 0) b.firstStatusMs = at;
            b.lastStatusMs = at;
        }
    }

    // Bounds. Status collection per slot: request, acknowledge, status
    // reply with the ATR.
    const size_t statusReply = frameBytes(kAtr.size());
    const double perSlotWire = wireMs(static_cast<double>(kMasterFrameBytes + kAckBytes + statusReply));
    b.wireMsTotal = wireMs(static_cast<double>(kMasterFrameBytes + kSlotMapBytes)) + slots * perSlotWire +
                    wireMs(2.0 * kMasterFrameBytes);
    // Here KickOff's pause runs beside the discovery thread's reset pause.
    b.criticalPathMs = kResetPauseMs + kSlotMapPauseMs + b.wireMsTotal;
    // The device: the slot map readable (latency timer), the receive poll
    // that sees it, the pause, then per slot the request and the poll that
    // sees acknowledge and status reply; the C2 reply likewise.
    double mapSeen = nextPoll(wireMs(kMasterFrameBytes) + readableAtMs({kSlotMapBytes}, true)[0]);
    double perSlot = polledCycleMs(kMasterFrameBytes, statusReply, false, true);
    double c2 = kReceivePollMs + nextPoll(wireMs(kMasterFrameBytes) + readableAtMs({kMasterFrameBytes}, true)[0]);
    b.deviceMs = kResetPauseMs + mapSeen + kSlotMapPauseMs + slots * perSlot + c2;
    return b;
}

void stopRack()
{
    registry_testing::shutdownAllRacks();
    rackSimReset();
}

// Connects to slots 1..count, all at once: a connect pauses 1 s.
std::vector<SCARDHANDLE> connectAll(const Rig& rig, int count)
{
    std::vector<SCARDHANDLE> handles(static_cast<size_t>(count), 0);
    std::vector<std::thread> threads;
    for (int a = 1; a <= count; ++a) {
        threads.emplace_back([&, a] {
            std::string name = readerName(rig.serial, a);
            DWORD protocol = 0;
            SCardConnectA(rig.context, name.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1,
                          &handles[static_cast<size_t>(a - 1)], &protocol);
        });
    }
    for (auto& t : threads) t.join();
    return handles;
}

bool exchange(SCARDHANDLE handle, const std::vector<BYTE>& command, size_t expected)
{
    BYTE answer[2048];
    DWORD length = sizeof answer;
    LONG result = SCardTransmit(handle, &g_rgSCardT1Pci, command.data(), static_cast<DWORD>(command.size()), nullptr,
                                answer, &length);
    return result == SCARD_S_SUCCESS && length == expected;
}

struct Latency {
    Shape shape;
    std::vector<double> samples;
    int failures = 0;
    double callerCpuMs = 0;   // caller's thread, per exchange
    double processCpuMs = 0;  // whole process, per exchange
    double entries = 0;       // log entries per exchange
};

Latency measureLatency(SCARDHANDLE handle, const Shape& shape, const std::vector<BYTE>& command, int rounds)
{
    Latency l;
    l.shape = shape;
    for (int i = 0; i < 3; ++i) exchange(handle, command, shape.answer);
    restartLog();
    double cpu0 = ownThreadCpuMs(), proc0 = processCpuMs();
    for (int i = 0; i < rounds; ++i) {
        Clock::time_point start = Clock::now();
        bool ok = exchange(handle, command, shape.answer);
        l.samples.push_back(msSince(start));
        if (!ok) ++l.failures;
    }
    l.callerCpuMs = (ownThreadCpuMs() - cpu0) / rounds;
    l.processCpuMs = (processCpuMs() - proc0) / rounds;
    l.entries = static_cast<double>(logEntries()) / rounds;
    return l;
}

struct Throughput {
    Shape shape;
    int threads = 0;
    double rate = 0;
    long exchanges = 0;
    int failures = 0;
    double processCpuMs = 0;  // per exchange
    double callerCpuMs = 0;   // per exchange, host threads only
    double cores = 0;         // process CPU per wall second
    double entries = 0;       // log entries per exchange
    double logKBps = 0;       // growth of the log file
};

// `threads` host threads, each on its own slot, exchange without pause;
// counts what completes within the window after a warm-up. `beside` runs
// for the whole time on threads of its own.
Throughput measureThroughput(const std::vector<SCARDHANDLE>& handles, const Shape& shape,
                             const std::vector<BYTE>& command, int threads, double windowS, double warmS)
{
    Throughput t;
    t.shape = shape;
    t.threads = threads;
    std::atomic<bool> stop{false};
    std::vector<std::atomic<long>> done(static_cast<size_t>(threads));
    std::vector<std::atomic<int>> failed(static_cast<size_t>(threads));
    for (auto& d : done) d.store(0);
    for (auto& f : failed) f.store(0);
    restartLog();
    std::vector<std::thread> workers;
    for (int n = 0; n < threads; ++n) {
        workers.emplace_back([&, n] {
            while (!stop.load(std::memory_order_relaxed)) {
                if (exchange(handles[static_cast<size_t>(n)], command, shape.answer))
                    done[static_cast<size_t>(n)].fetch_add(1);
                else
                    failed[static_cast<size_t>(n)].fetch_add(1);
            }
        });
    }
    auto snapshot = [&](long& count, double& callerCpu) {
        count = 0;
        callerCpu = 0;
        for (int n = 0; n < threads; ++n) {
            count += done[static_cast<size_t>(n)].load();
            callerCpu += threadCpuMs(workers[static_cast<size_t>(n)].native_handle());
        }
    };
    std::this_thread::sleep_for(std::chrono::duration<double>(warmS));
    size_t bytes0 = 0, bytes1 = 0;
    size_t entries0 = logEntries(&bytes0);
    long count0, count1;
    double caller0, caller1;
    double proc0 = processCpuMs();
    snapshot(count0, caller0);
    Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(windowS));
    snapshot(count1, caller1);
    double elapsedS = msSince(start) / 1000.0;
    double proc1 = processCpuMs();
    size_t entries1 = logEntries(&bytes1);
    stop.store(true);
    for (auto& w : workers) w.join();

    t.exchanges = count1 - count0;
    t.rate = static_cast<double>(t.exchanges) / elapsedS;
    for (auto& f : failed) t.failures += f.load();
    if (t.exchanges > 0) {
        t.processCpuMs = (proc1 - proc0) / static_cast<double>(t.exchanges);
        t.callerCpuMs = (caller1 - caller0) / static_cast<double>(t.exchanges);
        t.entries = static_cast<double>(entries1 - entries0) / static_cast<double>(t.exchanges);
    }
    t.cores = (proc1 - proc0) / (elapsedS * 1000.0);
    t.logKBps = static_cast<double>(bytes1 - bytes0) / 1024.0 / elapsedS;
    return t;
}

// Threads that wait in SCardGetStatusChangeA on readers whose state does not
// change, again and again, until stopped.
class Waiters {
public:
    Waiters(const Rig& rig, int firstAddress, int count)
    {
        for (int i = 0; i < count; ++i) names_.push_back(readerName(rig.serial, firstAddress + i));
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this, &rig, i] {
                SCARD_READERSTATEA state{};
                state.szReader = names_[static_cast<size_t>(i)].c_str();
                while (!stop_.load()) {
                    state.dwCurrentState = SCARD_STATE_PRESENT;
                    SCardGetStatusChangeA(rig.context, 500, &state, 1);
                    calls_.fetch_add(1);
                }
            });
        }
    }
    ~Waiters()
    {
        stop_.store(true);
        for (auto& t : threads_) t.join();
    }
    long calls() const { return calls_.load(); }

private:
    std::vector<std::string> names_;
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<long> calls_{0};
};

struct TraceCost {
    std::string what;
    size_t length = 0;
    double medianUs = 0, p99Us = 0, meanUs = 0;
};

TraceCost measureTrace(const std::string& what, const std::string& text, int count)
{
    restartLog();
    for (int i = 0; i < 200; ++i) logWrite(text);
    std::vector<double> us;
    us.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        Clock::time_point start = Clock::now();
        logWrite(text);
        us.push_back(msSince(start) * 1000.0);
    }
    restartLog();
    return {what, text.size(), percentile(us, 0.5), percentile(us, 0.99), mean(us)};
}

// ---- The plot ------------------------------------------------------------

struct Series {
    std::string label;
    std::string color;
    std::string dash;  // stroke-dasharray, empty for solid
    bool markers = false;
    std::vector<std::pair<double, double>> points;  // (threads, exchanges/s)
};

std::string svgPlot(const std::vector<Series>& series, const std::string& title)
{
    const double width = 760, height = 460, left = 70, right = 250, top = 50, bottom = 60;
    const double plotW = width - left - right, plotH = height - top - bottom;
    double lo = 1e9, hi = 0, xMax = 1;
    for (const Series& s : series)
        for (auto& p : s.points) {
            lo = std::min(lo, p.second);
            hi = std::max(hi, p.second);
            xMax = std::max(xMax, p.first);
        }
    // The range runs between steps of 1, 2 and 5 per decade.
    auto stepBelow = [](double v) {
        double decade = std::pow(10.0, std::floor(std::log10(v)));
        for (double m : {5.0, 2.0, 1.0})
            if (decade * m <= v) return decade * m;
        return decade;
    };
    auto stepAbove = [](double v) {
        double decade = std::pow(10.0, std::floor(std::log10(v)));
        for (double m : {1.0, 2.0, 5.0, 10.0})
            if (decade * m >= v) return decade * m;
        return decade * 10;
    };
    double yLo = stepBelow(std::max(lo, 1e-3) / 1.2);
    double yHi = stepAbove(hi * 1.2);
    double xSpan = std::log2(xMax);
    auto X = [&](double threads) { return left + (xSpan > 0 ? std::log2(threads) / xSpan : 0) * plotW; };
    auto Y = [&](double rate) {
        return top + plotH - (std::log10(rate) - std::log10(yLo)) / (std::log10(yHi) - std::log10(yLo)) * plotH;
    };
    std::ostringstream o;
    o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" viewBox=\"0 0 " << width << ' ' << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    o << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    o << "<text x=\"" << left << "\" y=\"24\" font-size=\"14\" font-weight=\"bold\">" << title << "</text>\n";
    // Grid and axes: 1, 2, 5 per decade.
    for (double decade = std::pow(10.0, std::floor(std::log10(yLo))); decade < yHi * 1.001; decade *= 10)
        for (double m : {1.0, 2.0, 5.0}) {
            double v = decade * m;
            if (v < yLo * 0.999 || v > yHi * 1.001) continue;
            double y = Y(v);
            o << "<line x1=\"" << left << "\" x2=\"" << left + plotW << "\" y1=\"" << y << "\" y2=\"" << y
              << "\" stroke=\"#ddd\"/>\n";
            o << "<text x=\"" << left - 6 << "\" y=\"" << y + 4 << "\" text-anchor=\"end\">" << fmt("%g", v)
              << "</text>\n";
        }
    for (double n = 1; n <= xMax * 1.001; n *= 2) {
        double x = X(n);
        o << "<line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << top << "\" y2=\"" << top + plotH
          << "\" stroke=\"#eee\"/>\n";
        o << "<text x=\"" << x << "\" y=\"" << top + plotH + 18 << "\" text-anchor=\"middle\">" << n << "</text>\n";
    }
    o << "<rect x=\"" << left << "\" y=\"" << top << "\" width=\"" << plotW << "\" height=\"" << plotH
      << "\" fill=\"none\" stroke=\"#444\"/>\n";
    o << "<text x=\"" << left + plotW / 2 << "\" y=\"" << height - 18
      << "\" text-anchor=\"middle\">concurrent slots (host threads, one rack)</text>\n";
    o << "<text transform=\"translate(18," << top + plotH / 2
      << ") rotate(-90)\" text-anchor=\"middle\">exchanges per second (log scale)</text>\n";
    double legendY = top + 6;
    for (const Series& s : series) {
        o << "<polyline fill=\"none\" stroke=\"" << s.color << "\" stroke-width=\"" << (s.markers ? 2.5 : 1.5) << "\"";
        if (!s.dash.empty()) o << " stroke-dasharray=\"" << s.dash << "\"";
        o << " points=\"";
        for (auto& p : s.points) o << X(p.first) << ',' << Y(p.second) << ' ';
        o << "\"/>\n";
        if (s.markers)
            for (auto& p : s.points)
                o << "<circle cx=\"" << X(p.first) << "\" cy=\"" << Y(p.second) << "\" r=\"4\" fill=\"" << s.color
                  << "\"/>\n";
        double lx = left + plotW + 14;
        o << "<line x1=\"" << lx << "\" x2=\"" << lx + 26 << "\" y1=\"" << legendY << "\" y2=\"" << legendY
          << "\" stroke=\"" << s.color << "\" stroke-width=\"" << (s.markers ? 2.5 : 1.5) << "\"";
        if (!s.dash.empty()) o << " stroke-dasharray=\"" << s.dash << "\"";
        o << "/>\n<text x=\"" << lx + 32 << "\" y=\"" << legendY + 4 << "\">" << s.label << "</text>\n";
        legendY += 20;
    }
    o << "</svg>\n";
    return o.str();
}

// ---- The report ----------------------------------------------------------

struct Settings {
    std::string out = "build/bench";
    bool quick = false;
};

std::string hostLine()
{
    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) < 0) load[0] = -1;
    char host[128] = "?";
    gethostname(host, sizeof host - 1);
    return fmt("%ld processors, load average %.2f at the start", sysconf(_SC_NPROCESSORS_ONLN), load[0]);
}

}  // namespace

int main(int argc, char** argv)
{
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--out" && i + 1 < argc) settings.out = argv[++i];
        else if (arg == "--quick") settings.quick = true;
        else {
            std::fprintf(stderr, "usage: %s [--out DIR] [--quick]\n", argv[0]);
            return 2;
        }
    }
    const double window = settings.quick ? 1.5 : 4.0;
    const double warm = settings.quick ? 0.3 : 0.5;
    const int shortRounds = settings.quick ? 60 : 200;
    const int longRounds = settings.quick ? 20 : 80;

    g_benchLog = "/tmp/tessel-bench-" + std::to_string(getpid()) + ".log";
    platform::testing::setLogFilePath(g_benchLog);
    const std::string host = hostLine();
    Clock::time_point runStart = Clock::now();
    std::time_t now = std::time(nullptr);
    char when[64];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&now));

    const Shape shortShape{"short: 5-byte command, 2-byte answer", kShortCommand.size(), kShortAnswer.size()};
    const Shape longShape{"long: 255-byte command, 256-byte answer", 255, 256};
    std::vector<BYTE> longCommand(255);
    for (size_t i = 0; i < longCommand.size(); ++i) longCommand[i] = static_cast<BYTE>(i);
    std::vector<uint8_t> longAnswer(256);
    for (size_t i = 0; i < longAnswer.size(); ++i) longAnswer[i] = static_cast<uint8_t>(255 - i);
    longAnswer[254] = 0x90;
    longAnswer[255] = 0x00;

    auto progress = [&](const std::string& what) {
        std::fprintf(stderr, "[%6.1f s] %s\n", msSince(runStart) / 1000.0, what.c_str());
    };

    // Trace entries first, while nothing else of the library runs.
    progress("trace entry cost");
    std::vector<TraceCost> traces;
    traces.push_back(measureTrace("short entry (a Transmit line)",
                                  "Tessel BENCH064 R12 Transmit - 00 b0 00 00 02 \n", settings.quick ? 2000 : 5000));
    {
        std::string received = "Received 267 bytes from rack BENCH064: ";
        for (int i = 0; i < 267; ++i) received += fmt("%02x ", i & 0xFF);
        received += "\n";
        traces.push_back(measureTrace("long entry (a 267-byte Received line)", received, settings.quick ? 1000 : 3000));
    }

    // Bring-up.
    std::vector<BringUp> bringUps;
    Rig rig;
    for (int slots : {8, 240}) {
        progress("bring-up of " + std::to_string(slots) + " slots");
        bringUps.push_back(startRack(rig, fmt("BENCH%03d", slots), slots));
        stopRack();
    }
    progress("bring-up of 64 slots (stays up for the exchanges)");
    bringUps.insert(bringUps.begin() + 1, startRack(rig, "BENCH064", 64));

    progress("connecting 64 readers");
    std::vector<SCARDHANDLE> handles = connectAll(rig, 64);
    int connected = static_cast<int>(std::count_if(handles.begin(), handles.end(), [](SCARDHANDLE h) { return h != 0; }));

    progress("library at rest");
    double idleWindowS = settings.quick ? 1.0 : 2.0;
    double idle0 = processCpuMs();
    std::this_thread::sleep_for(std::chrono::duration<double>(idleWindowS));
    double idleCpuPerS = (processCpuMs() - idle0) / idleWindowS;

    // One exchange at a time.
    progress("one exchange at a time");
    std::vector<Latency> latencies;
    latencies.push_back(measureLatency(handles[0], shortShape, kShortCommand, shortRounds));
    rackSimSetFixedAnswer(rig.device, 1, longAnswer.data(), static_cast<int>(longAnswer.size()));
    latencies.push_back(measureLatency(handles[0], longShape, longCommand, longRounds));
    rackSimSetFixedAnswer(rig.device, 1, kShortAnswer.data(), static_cast<int>(kShortAnswer.size()));

    // Many slots at once.
    const std::vector<int> threadCounts{1, 4, 16, 64};
    std::vector<Throughput> shortRuns, longRuns;
    for (int n : threadCounts) {
        progress("short exchanges, " + std::to_string(n) + " threads");
        shortRuns.push_back(measureThroughput(handles, shortShape, kShortCommand, n, window, warm));
    }
    for (int a = 1; a <= 64; ++a)
        rackSimSetFixedAnswer(rig.device, a, longAnswer.data(), static_cast<int>(longAnswer.size()));
    for (int n : threadCounts) {
        progress("long exchanges, " + std::to_string(n) + " threads");
        longRuns.push_back(measureThroughput(handles, longShape, longCommand, n, window, warm));
    }
    for (int a = 1; a <= 64; ++a)
        rackSimSetFixedAnswer(rig.device, a, kShortAnswer.data(), static_cast<int>(kShortAnswer.size()));

    // A waiting SCardGetStatusChangeA.
    progress("a waiting SCardGetStatusChangeA");
    const DWORD waitMs = settings.quick ? 1000 : 2000;
    double waitThreadCpu = 0, waitWall = 0, waitProcess = 0;
    LONG waitResult = 0;
    {
        std::thread waiter([&] {
            std::string name = readerName(rig.serial, 40);
            SCARD_READERSTATEA state{};
            state.szReader = name.c_str();
            state.dwCurrentState = SCARD_STATE_PRESENT;
            double cpu0 = ownThreadCpuMs(), proc0 = processCpuMs();
            Clock::time_point start = Clock::now();
            waitResult = SCardGetStatusChangeA(rig.context, waitMs, &state, 1);
            waitWall = msSince(start);
            waitThreadCpu = ownThreadCpuMs() - cpu0;
            waitProcess = processCpuMs() - proc0;
        });
        waiter.join();
    }

    // Exchanges of 16 threads with and without 16 waiting threads, in turns.
    progress("16 exchanging threads with and without 16 waiting threads");
    std::vector<Throughput> alone, withWaiters;
    long waiterCalls = 0;
    for (int round = 0; round < 2; ++round) {
        alone.push_back(measureThroughput(handles, shortShape, kShortCommand, 16, window, warm));
        Waiters waiters(rig, 17, 16);
        withWaiters.push_back(measureThroughput(handles, shortShape, kShortCommand, 16, window, warm));
        waiterCalls += waiters.calls();
    }
    auto rateOf = [](const std::vector<Throughput>& runs) {
        double sum = 0;
        for (auto& r : runs) sum += r.rate;
        return sum / static_cast<double>(runs.size());
    };
    double aloneRate = rateOf(alone), waitingRate = rateOf(withWaiters);
    double drop = aloneRate > 0 ? (aloneRate - waitingRate) / aloneRate * 100.0 : 0;

    stopRack();
    std::remove(g_benchLog.c_str());
    double runS = msSince(runStart) / 1000.0;
    progress("done");

    // ---- Report -----------------------------------------------------------
    std::ostringstream r;
    r << "# Benchmark against the bus limit\n\n";
    r << "Run of " << when << ", " << fmt("%.0f s", runS) << ", " << host << (settings.quick ? ", quick mode" : "")
      << ". The library runs in this process against the rack emulator with wire pacing on (115,200 baud 8N1 each "
         "way, FTDI latency timer 16 ms), in real time, with its trace log on (file in /tmp). Figures are wall-clock "
         "and move with the load of the machine: compare runs made on a quiet machine only.\n\n";

    r << "## One exchange at a time\n\n";
    r << "SCardTransmit round trip on one reader, nothing else running. *Wire* is the pure line time of the command "
         "frame, the acknowledge and the answer frame; *+ latency timer* adds the FTDI chip holding back a packet that "
         "does not fill 62 bytes for 16 ms; the receive poll adds 0 to 5 ms on top.\n\n";
    r << "| exchange | bytes out / back | n | median ms | p99 ms | wire ms | wire + latency timer ms | median - wire | "
         "median - (wire + timer) | caller CPU ms/exch | process CPU ms/exch | log entries/exch |\n";
    r << "|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const Latency& l : latencies) {
        double med = percentile(l.samples, 0.5), p99 = percentile(l.samples, 0.99);
        double wire = l.shape.roundTripMs(false), device = l.shape.roundTripMs(true);
        r << "| " << l.shape.name << " | " << l.shape.commandFrame() << " / " << kAckBytes << "+"
          << l.shape.answerFrame() << " | " << l.samples.size() << (l.failures ? fmt(" (%d failed)", l.failures) : "")
          << " | " << fmt("%.2f", med) << " | " << fmt("%.2f", p99) << " | " << fmt("%.2f", wire) << " | "
          << fmt("%.2f", device) << " | " << fmt("%+.2f", med - wire) << " | " << fmt("%+.2f", med - device) << " | "
          << fmt("%.2f", l.callerCpuMs) << " | " << fmt("%.2f", l.processCpuMs) << " | " << fmt("%.1f", l.entries)
          << " |\n";
    }
    r << "\n";

    r << "## Many slots at once\n\n";
    r << "Host threads, each on its own reader of one 64-slot rack, exchanging without pause for "
      << fmt("%.1f", window) << " s after " << fmt("%.1f", warm)
      << " s of warm-up. *Bus* is the bus limit: 11,520 B/s over every byte of an exchange, both ways. *Bus + "
         "poll* is what the bus and the 5 ms receive poll allow together: the next frame leaves at the first poll "
         "after the acknowledge (the answer, for one thread alone) is readable, and never above the bus figure. "
         "*Device* is the same with the chip's 16 ms latency timer, as the emulator and an FTDI chip at its default "
         "do; it counts each direction on its own 11,520 B/s and so can lie above the bus figure for long "
         "exchanges.\n\n";
    r << "| exchange | threads | exchanges/s | bus /s | bus + poll /s | % of bus + poll | device /s | % of device | "
         "failed | process CPU ms/exch | caller CPU ms/exch | CPU cores busy | log entries/exch | log KiB/s |\n";
    r << "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const auto* runs : {&shortRuns, &longRuns})
        for (const Throughput& t : *runs) {
            r << "| " << (t.shape.command == kShortCommand.size() ? "short" : "long") << " | " << t.threads << " | "
              << fmt("%.1f", t.rate) << " | " << fmt("%.1f", t.shape.busRate()) << " | "
              << fmt("%.1f", t.shape.busPollRate(t.threads)) << " | " << percent(t.rate, t.shape.busPollRate(t.threads))
              << " | " << fmt("%.1f", t.shape.deviceRate(t.threads)) << " | "
              << percent(t.rate, t.shape.deviceRate(t.threads)) << " | " << t.failures << " | "
              << fmt("%.2f", t.processCpuMs) << " | " << fmt("%.2f", t.callerCpuMs) << " | " << fmt("%.2f", t.cores)
              << " | " << fmt("%.1f", t.entries) << " | " << fmt("%.0f", t.logKBps) << " |\n";
        }
    r << "\n![Exchanges per second against concurrent slots](exchanges.svg)\n\n";

    r << "## A waiting call must not slow the others\n\n";
    r << "16 threads exchange short commands on readers 1-16; in alternate windows 16 more threads wait in "
         "SCardGetStatusChangeA (500 ms time-out, called again at once) on readers 17-32, whose state does not "
         "change.\n\n";
    r << "| window | 16 exchanging alone /s | with 16 waiting /s | CPU cores busy alone | CPU cores busy with waiters |\n";
    r << "|---|---|---|---|---|\n";
    for (size_t i = 0; i < alone.size(); ++i)
        r << "| " << i + 1 << " | " << fmt("%.1f", alone[i].rate) << " | " << fmt("%.1f", withWaiters[i].rate)
          << " | " << fmt("%.2f", alone[i].cores) << " | " << fmt("%.2f", withWaiters[i].cores) << " |\n";
    r << "| mean | " << fmt("%.1f", aloneRate) << " | " << fmt("%.1f", waitingRate) << " | | |\n\n";
    r << "Drop of the exchange rate with the waiters: " << fmt("%.1f%%", drop) << " (" << waiterCalls
      << " waiting calls ended by their time-out meanwhile).\n\n";

    r << "## Bring-up\n\n";
    r << "From the call of KickOff to all racks enumerated (polled every 0.5 ms), and to the return of "
         "SCardEstablishContext called right after KickOff. One rack, every slot with a card ("
      << kAtr.size() << "-byte ATR). *Fixed pauses* are KickOff's 1,000 ms, the reset's 1,500 ms and the 3,000 ms after "
         "the slot map; *wire* is enumerate and slot map, per slot a status request, its acknowledge and the status "
         "reply, and the closing C2 both ways. On this platform KickOff's pause runs beside the discovery thread's "
         "reset pause, so the path here is 1,500 + 3,000 ms + wire; under the Windows loader lock it is all three. "
         "*Device* adds the latency timer and the receive poll to every status exchange, which take turns on the "
         "bus.\n\n";
    r << "| slots | enumerated ms | context ms | fixed pauses + wire ms | over it ms | path here (1,500 + 3,000 + wire) "
         "ms | over it ms | device ms | % of device | reset → enumerate ms | enumerate → first status ms | status "
         "collection ms | per slot ms |\n";
    r << "|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const BringUp& b : bringUps) {
        double issueBound = b.fixedPausesMs + b.wireMsTotal;
        double collection = b.collectedMs - b.firstStatusMs;
        r << "| " << b.slots << " | " << fmt("%.0f", b.enumeratedMs) << " | " << fmt("%.0f", b.contextMs) << " | "
          << fmt("%.0f", issueBound) << " | " << fmt("%+.0f", b.enumeratedMs - issueBound) << " | "
          << fmt("%.0f", b.criticalPathMs) << " | " << fmt("%+.0f", b.enumeratedMs - b.criticalPathMs) << " | "
          << fmt("%.0f", b.deviceMs) << " | " << percent(b.enumeratedMs, b.deviceMs) << " | "
          << fmt("%.0f", b.enumerateMs - b.resetMs) << " | " << fmt("%.0f", b.firstStatusMs - b.enumerateMs) << " | "
          << fmt("%.0f", collection) << " | " << fmt("%.2f", collection / b.slots) << " |\n";
    }
    r << "\n";

    r << "## Processor time\n\n";
    r << "| what | value |\n|---|---|\n";
    r << "| library at rest, 64-slot rack (two worker threads polling every 5 ms) | "
      << fmt("%.1f ms CPU per s", idleCpuPerS) << " |\n";
    r << "| a waiting SCardGetStatusChangeA, its own thread | "
      << fmt("%.0f ms CPU per s of wait (%.0f ms CPU in %.0f ms, result 0x%08X)", waitThreadCpu / waitWall * 1000.0,
             waitThreadCpu, waitWall, static_cast<unsigned>(waitResult))
      << " |\n";
    r << "| the same wait, whole process | " << fmt("%.0f ms CPU per s", waitProcess / waitWall * 1000.0) << " |\n";
    for (const Latency& l : latencies)
      r << "| one " << (l.shape.command == kShortCommand.size() ? "short" : "long") << " exchange alone | "
        << fmt("caller %.2f ms, process %.2f ms CPU per exchange", l.callerCpuMs, l.processCpuMs) << " |\n";
    r << "\nPer exchange under load, see the CPU columns of the tables above.\n\n";

    r << "## One trace entry\n\n";
    r << "logWrite into a file in /tmp, one thread, nothing else running.\n\n";
    r << "| entry | characters | median µs | p99 µs | mean µs |\n|---|---|---|---|---|\n";
    for (const TraceCost& t : traces)
        r << "| " << t.what << " | " << t.length << " | " << fmt("%.1f", t.medianUs) << " | " << fmt("%.1f", t.p99Us)
          << " | " << fmt("%.1f", t.meanUs) << " |\n";
    if (!latencies.empty())
        r << "\nWith " << fmt("%.1f", latencies[0].entries) << " entries per short exchange, the log takes about "
          << fmt("%.2f ms", latencies[0].entries * traces[0].meanUs / 1000.0)
          << " of each exchange, all of it under the one process-wide log lock.\n";
    r << "\n";

    // Reach.
    auto verdict = [](bool met) { return met ? "met" : "**not met**"; };
    r << "## Against the targets\n\n";
    r << "| target | measured | limit | result | what bounds it |\n|---|---|---|---|---|\n";
    for (const Latency& l : latencies) {
        double med = percentile(l.samples, 0.5);
        double wire = l.shape.roundTripMs(false), device = l.shape.roundTripMs(true);
        r << "| one exchange (" << (l.shape.command == kShortCommand.size() ? "short" : "long")
          << "): median within wire + 6 ms | " << fmt("%.2f ms", med) << " | " << fmt("%.2f ms", wire + 6.0) << " | "
          << verdict(med <= wire + 6.0) << fmt("; %.2f ms over wire + latency timer", med - device) << " | "
          << "the 16 ms latency timer (" << fmt("%.1f ms", device - wire)
          << " of it here) and the 5 ms receive poll |\n";
    }
    {
        double worst = 1e9;
        std::string worstAt;
        for (const auto* runs : {&shortRuns, &longRuns})
            for (const Throughput& t : *runs) {
                double share = t.rate / t.shape.busPollRate(t.threads);
                if (share < worst) {
                    worst = share;
                    worstAt = fmt("%s, %d thread%s", t.shape.command == kShortCommand.size() ? "short" : "long",
                                  t.threads, t.threads == 1 ? "" : "s");
                }
            }
        double worstDevice = 1e9;
        for (const auto* runs : {&shortRuns, &longRuns})
            for (const Throughput& t : *runs) worstDevice = std::min(worstDevice, t.rate / t.shape.deviceRate(t.threads));
        r << "| many slots: at least 90% of bus + poll | lowest " << fmt("%.0f%%", worst * 100.0) << " (" << worstAt
          << ") | 90% | " << verdict(worst >= 0.9) << fmt("; lowest %.0f%% of the device figure", worstDevice * 100.0)
          << " | the latency timer holds every acknowledge that shares no 62-byte packet; the rack lock waits for "
             "it and for the 5 ms poll |\n";
    }
    for (const BringUp& b : bringUps)
        if (b.slots == 240) {
            double bound = b.fixedPausesMs + b.wireMsTotal;
            r << "| bring-up of 240 slots within 1 s above pauses + wire | " << fmt("%.0f ms", b.enumeratedMs) << " | "
              << fmt("%.0f ms", bound + 1000.0) << " | " << verdict(b.enumeratedMs <= bound + 1000.0)
              << fmt("; %.0f%% of the device figure", b.enumeratedMs / b.deviceMs * 100.0)
              << " | the 1,500 ms and 3,000 ms pauses, then one status exchange per slot, each held by the latency "
                 "timer and the poll |\n";
        }
    r << "| waiting calls: drop below 10% | " << fmt("%.1f%%", drop) << " | 10% | " << verdict(drop < 10.0)
      << " | processor share: the waits poll without sleeping and take cores (see the CPU columns), while the "
         "exchange rate is held by the latency timer and the poll |\n";
    r << "\nReaders connected for the runs: " << connected << " of 64.\n";

    std::string report = r.str();
    std::printf("%s", report.c_str());

    // The plot.
    std::vector<Series> series;
    auto addShape = [&](const std::vector<Throughput>& runs, const std::string& tag, const std::string& color,
                        const std::string& light) {
        Series measured{tag + ": measured", color, "", true, {}};
        Series bus{tag + ": bus", light, "8,4", false, {}};
        Series busPoll{tag + ": bus + 5 ms poll", light, "2,3", false, {}};
        Series device{tag + ": device (latency timer)", color, "10,3,2,3", false, {}};
        for (const Throughput& t : runs) {
            measured.points.push_back({static_cast<double>(t.threads), std::max(t.rate, 0.1)});
            bus.points.push_back({static_cast<double>(t.threads), t.shape.busRate()});
            busPoll.points.push_back({static_cast<double>(t.threads), t.shape.busPollRate(t.threads)});
            device.points.push_back({static_cast<double>(t.threads), t.shape.deviceRate(t.threads)});
        }
        series.push_back(measured);
        series.push_back(bus);
        series.push_back(busPoll);
        series.push_back(device);
    };
    addShape(shortRuns, "short", "#1f5fa8", "#7fa9d8");
    addShape(longRuns, "long", "#c2571a", "#e8a57c");
    std::string svg = svgPlot(series, "Exchanges per second against concurrent slots, wire pacing on");

    std::string mkdir = "mkdir -p '" + settings.out + "'";
    if (std::system(mkdir.c_str()) != 0) {
        std::fprintf(stderr, "cannot make %s\n", settings.out.c_str());
        return 1;
    }
    std::ofstream(settings.out + "/report.md") << report;
    std::ofstream(settings.out + "/exchanges.svg") << svg;
    std::fprintf(stderr, "wrote %s/report.md and %s/exchanges.svg\n", settings.out.c_str(), settings.out.c_str());
    return 0;
}
