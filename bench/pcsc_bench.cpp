// The library against the rack emulator with wire pacing on: how close its
// exchanges, its bring-up and its waits come to the limits that the serial
// link (115,200 baud 8N1, 11,520 bytes/s each way), the FTDI chip's latency
// timer and the library's own fixed pauses and 5 ms receive poll put on
// them. Everything runs in real time. Prints the tables, and writes
// report.md and exchanges.svg into the output folder. Asserts nothing.
//
//   pcsc_bench [--out DIR] [--quick] [--latency-timer MS]... [--links-only]
//
// The library leaves the chip's latency timer as the device driver has it:
// 16 ms unless the driver was tuned. Each --latency-timer (1 to 255 ms,
// default one run at 16) runs the whole benchmark once with the emulated
// driver set so, and the report sets the runs side by side. Last come three
// links side by side: the driver's default, a driver tuned to 2 ms and the
// fast link (--links-only runs just those). --load-only runs just the
// waiting calls and the scaling of short exchanges from 1 to 64 threads.
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
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/bus_model.h"
#include "bench/load_targets.h"
#include "bench/report_text.h"
#include "diag/trace_log.h"
#include "pcsc/registry.h"
#include "pcsc/registry_testing.h"
#include "pcsc/winscard_api.h"
#include "platform/test_seam.h"
#include "sim/rack_sim.h"

namespace {

using Clock = std::chrono::steady_clock;

using namespace bus_model;
using namespace load_targets;
using report_text::fmt;
using report_text::percent;
using report_text::verdict;

// ---- Measuring ----------------------------------------------------------

double msSince(Clock::time_point start) { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

// The process's processor time less the emulator's own thread, which does
// on this machine what the device driver does on a real one (it signals the
// fast link's receive event): the figure is the library's and the host's.
double processCpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0 - rackSimOwnCpuUs() / 1000.0;
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
    double fixedPausesMs = kResetPauseMs + kSlotMapPauseMs;
    double criticalPathMs = 0;  // pauses on the path here plus wire
    double deviceMs = 0;        // with latency timer and polls
    double pollOnlyMs = 0;      // the same without the latency timer
    double perSlotWireMs = 0;   // one status exchange: wire alone
    double perSlotPollMs = 0;   //   with the receive poll
    double perSlotDeviceMs = 0; //   with the poll and the latency timer
};

// KickOff to all racks enumerated as the device behaves: the slot map
// readable, the receive pass that sees it, the pause, then per slot the
// request and the pass that sees acknowledge and status reply (they take
// turns on the bus); the C2 reply likewise. Timer 0: none.
double bringUpModelMs(int slots, size_t statusReply, double timerMs)
{
    double mapSeen = nextPoll(wireMs(kMasterFrameBytes) + readableAtMs({kSlotMapBytes}, timerMs)[0]);
    double perSlot = polledCycleMs(kMasterFrameBytes, statusReply, false, timerMs, kReceivePollMs);
    double c2 = kReceivePollMs + nextPoll(wireMs(kMasterFrameBytes) + readableAtMs({kMasterFrameBytes}, timerMs)[0]);
    return kResetPauseMs + mapSeen + kSlotMapPauseMs + slots * perSlot + c2;
}

struct Rig {
    int device = -1;
    std::string serial;
    int slots = 0;
    SCARDCONTEXT context = 0;
};

// Configures one rack of `slots` slots with cards, its driver's latency
// timer at `timerMs`, starts the library and measures the bring-up. The
// library stays up.
BringUp startRack(Rig& rig, const std::string& serial, int slots, double timerMs)
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
    rackSimSetLatencyTimerMs(rig.device, static_cast<unsigned>(timerMs));
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
    b.criticalPathMs = kResetPauseMs + kSlotMapPauseMs + b.wireMsTotal;
    b.deviceMs = bringUpModelMs(slots, statusReply, timerMs);
    b.pollOnlyMs = bringUpModelMs(slots, statusReply, 0);
    b.perSlotWireMs = perSlotWire;
    b.perSlotPollMs = polledCycleMs(kMasterFrameBytes, statusReply, false, 0, kReceivePollMs);
    b.perSlotDeviceMs = polledCycleMs(kMasterFrameBytes, statusReply, false, timerMs, kReceivePollMs);
    return b;
}

void stopRack()
{
    registry_testing::shutdownAllRacks();
    rackSimReset();
}

// Connects to slots 1..count, all at once.
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
                // What the reader holds now (a connected card is in use),
                // fed back whole, as clients do: the call then waits.
                SCardGetStatusChangeA(rig.context, 0, &state, 1);
                while (!stop_.load()) {
                    state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
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


// ---- The log's settings ----------------------------------------------------

// Runs `body` with one trace setting in the environment; the log reads it
// when it starts afresh, which every measurement does first.
template <typename Body>
auto withTraceSetting(const char* name, const char* value, Body body)
{
    setenv(name, value, 1);
    auto result = body();
    unsetenv(name);
    restartLog();
    std::remove((g_benchLog + ".1").c_str());
    return result;
}

// The short entry again without a limit, with a limit small enough to move
// the log aside every few hundred entries, and with the log off; and the
// entries that moved it, the slowest as many as there were rotations.
std::vector<TraceCost> measureTraceSettings(const std::string& text, int count)
{
    std::vector<TraceCost> rows;
    rows.push_back(withTraceSetting("TESSEL_TRACE_LIMIT", "0", [&] {
        return measureTrace("short entry, no limit (TESSEL_TRACE_LIMIT=0)", text, count);
    }));
    const uint64_t limit = 16 << 10;
    rows.push_back(withTraceSetting("TESSEL_TRACE_LIMIT", "16K", [&] {
        return measureTrace("short entry, log rotating at 16 KiB (one entry in ~200 rotates)", text, count);
    }));
    rows.push_back(withTraceSetting("TESSEL_TRACE_LIMIT", "16K", [&] {
        restartLog();
        std::vector<double> us;
        for (int i = 0; i < count; ++i) {
            Clock::time_point start = Clock::now();
            logWrite(text);
            us.push_back(msSince(start) * 1000.0);
        }
        size_t lineBytes = text.size() + 30;
        size_t rotations = std::max<size_t>(1, static_cast<size_t>(count) * lineBytes / limit);
        std::sort(us.begin(), us.end());
        std::vector<double> slowest(us.end() - static_cast<std::ptrdiff_t>(rotations), us.end());
        return TraceCost{"the entry that rotates (slowest " + std::to_string(rotations) + " of " +
                             std::to_string(count) + ")",
                         text.size(), percentile(slowest, 0.5), percentile(slowest, 0.99), mean(slowest)};
    }));
    rows.push_back(withTraceSetting("TESSEL_TRACE", "off", [&] {
        return measureTrace("short entry, TESSEL_TRACE=off", text, count);
    }));
    return rows;
}

// The growth of the log in redact mode, beside the full log's figures.
Throughput measureRedactedThroughput(const std::vector<SCARDHANDLE>& handles, const Shape& shape,
                                     const std::vector<BYTE>& command, int threads, double windowS, double warmS)
{
    return withTraceSetting("TESSEL_TRACE", "redact", [&] {
        return measureThroughput(handles, shape, command, threads, windowS, warmS);
    });
}

void redactedLogRows(std::ostringstream& r, double timerMs, const std::vector<Throughput>& redacted)
{
    for (const Throughput& t : redacted)
        r << "| " << fmt("%g ms", timerMs) << " | " << t.shape.tag() << ", redact | " << t.threads << " | "
          << t.failures << " | " << fmt("%.2f", t.processCpuMs) << " | " << fmt("%.2f", t.callerCpuMs) << " | "
          << fmt("%.2f", t.cores) << " | " << fmt("%.1f", t.entries) << " | " << fmt("%.0f", t.logKBps) << " |\n";
}

// ---- The plot ------------------------------------------------------------

struct Series {
    std::string label;
    std::string color;
    std::string dash;  // stroke-dasharray, empty for solid
    bool markers = false;
    std::vector<std::pair<double, double>> points;  // (threads, exchanges/s)
    double width = 0;  // stroke width; 0: 2.5 with markers, else 1.5
};

struct Panel {
    std::string title;
    std::vector<Series> series;  // the same labels and styles in every panel
};

// Panels side by side on one log-log scale, with one legend for all.
std::string svgPlot(const std::vector<Panel>& panels, const std::string& title)
{
    const double left = 70, gap = 40, panelW = 330, legendW = 270, top = 70, plotH = 340, bottom = 60;
    const double width = left + panels.size() * panelW + (panels.size() - 1) * gap + legendW;
    const double height = top + plotH + bottom;
    double lo = 1e9, hi = 0, xMax = 1;
    for (const Panel& panel : panels)
        for (const Series& s : panel.series)
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
    auto Y = [&](double rate) {
        return top + plotH - (std::log10(rate) - std::log10(yLo)) / (std::log10(yHi) - std::log10(yLo)) * plotH;
    };
    std::ostringstream o;
    o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" viewBox=\"0 0 " << width << ' ' << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    o << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    o << "<text x=\"" << left << "\" y=\"24\" font-size=\"14\" font-weight=\"bold\">" << title << "</text>\n";
    auto stroke = [&](const Series& s) {
        double w = s.width > 0 ? s.width : s.markers ? 2.5 : 1.5;
        std::string a = " stroke=\"" + s.color + "\" stroke-width=\"" + fmt("%g", w) + "\"";
        if (!s.dash.empty()) a += " stroke-dasharray=\"" + s.dash + "\"";
        return a;
    };
    for (size_t k = 0; k < panels.size(); ++k) {
        const double x0 = left + static_cast<double>(k) * (panelW + gap);
        auto X = [&](double threads) { return x0 + (xSpan > 0 ? std::log2(threads) / xSpan : 0) * panelW; };
        o << "<text x=\"" << x0 + panelW / 2 << "\" y=\"" << top - 10 << "\" text-anchor=\"middle\" font-weight=\"bold\">"
          << panels[k].title << "</text>\n";
        // Grid and axes: 1, 2, 5 per decade.
        for (double decade = std::pow(10.0, std::floor(std::log10(yLo))); decade < yHi * 1.001; decade *= 10)
            for (double m : {1.0, 2.0, 5.0}) {
                double v = decade * m;
                if (v < yLo * 0.999 || v > yHi * 1.001) continue;
                double y = Y(v);
                o << "<line x1=\"" << x0 << "\" x2=\"" << x0 + panelW << "\" y1=\"" << y << "\" y2=\"" << y
                  << "\" stroke=\"#ddd\"/>\n";
                o << "<text x=\"" << x0 - 6 << "\" y=\"" << y + 4 << "\" text-anchor=\"end\">" << fmt("%g", v)
                  << "</text>\n";
            }
        for (double n = 1; n <= xMax * 1.001; n *= 2) {
            double x = X(n);
            o << "<line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << top << "\" y2=\"" << top + plotH
              << "\" stroke=\"#eee\"/>\n";
            o << "<text x=\"" << x << "\" y=\"" << top + plotH + 18 << "\" text-anchor=\"middle\">" << n << "</text>\n";
        }
        o << "<rect x=\"" << x0 << "\" y=\"" << top << "\" width=\"" << panelW << "\" height=\"" << plotH
          << "\" fill=\"none\" stroke=\"#444\"/>\n";
        o << "<text x=\"" << x0 + panelW / 2 << "\" y=\"" << height - 18
          << "\" text-anchor=\"middle\">concurrent slots (host threads, one rack)</text>\n";
        for (const Series& s : panels[k].series) {
            o << "<polyline fill=\"none\"" << stroke(s) << " points=\"";
            for (auto& p : s.points) o << X(p.first) << ',' << Y(p.second) << ' ';
            o << "\"/>\n";
            if (s.markers)
                for (auto& p : s.points)
                    o << "<circle cx=\"" << X(p.first) << "\" cy=\"" << Y(p.second) << "\" r=\"4\" fill=\"" << s.color
                      << "\"/>\n";
        }
    }
    o << "<text transform=\"translate(18," << top + plotH / 2
      << ") rotate(-90)\" text-anchor=\"middle\">exchanges per second (log scale)</text>\n";
    double legendY = top + 6;
    const double lx = width - legendW + 14;
    if (!panels.empty())
        for (const Series& s : panels[0].series) {
            o << "<line x1=\"" << lx << "\" x2=\"" << lx + 26 << "\" y1=\"" << legendY << "\" y2=\"" << legendY << "\""
              << stroke(s) << "/>\n";
            if (s.markers) o << "<circle cx=\"" << lx + 13 << "\" cy=\"" << legendY << "\" r=\"4\" fill=\"" << s.color << "\"/>\n";
            o << "<text x=\"" << lx + 32 << "\" y=\"" << legendY + 4 << "\">" << s.label << "</text>\n";
            legendY += 20;
        }
    o << "</svg>\n";
    return o.str();
}

// ---- The runs ------------------------------------------------------------

struct Settings {
    std::string out = "build/bench";
    bool quick = false;
    std::vector<double> timersMs;  // one run each
    bool linksOnly = false;        // only the three links side by side
    bool loadOnly = false;         // only the waiting calls and the thread scaling
    bool connectionsOnly = false;  // only contexts and connections
    bool farmOnly = false;         // only the farm of 16 racks of 240 slots
};

std::string hostLine()
{
    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) < 0) load[0] = -1;
    return fmt("%ld processors, load average %.2f at the start", sysconf(_SC_NPROCESSORS_ONLN), load[0]);
}

// What the runs do, the same for every setting of the timer.
struct Workload {
    Shape shortShape{"short: 5-byte command, 2-byte answer", kShortCommand.size(), kShortAnswer.size()};
    Shape longShape{"long: 255-byte command, 256-byte answer", 255, 256};
    std::vector<BYTE> longCommand;
    std::vector<uint8_t> longAnswer;
    std::vector<int> threadCounts{1, 4, 16, 64};
    double window = 4.0, warm = 0.5, idleWindowS = 2.0;
    int shortRounds = 200, longRounds = 80;
    DWORD waitMs = 2000;
};

// Everything measured with one setting of the driver's latency timer.
struct Run {
    double timerMs = kDefaultTimerMs;
    std::vector<BringUp> bringUps;
    int connected = 0;
    double idleCpuPerS = 0;
    std::vector<Latency> latencies;
    std::vector<Throughput> shortRuns, longRuns;
    std::vector<Throughput> redactedRuns;
    double waitThreadCpu = 0, waitWall = 0, waitProcess = 0;
    LONG waitResult = 0;
    double transmitWaitCpu = 0, transmitWaitWall = 0;  // one SCardTransmit on a card that takes its time
    LONG transmitWaitResult = 0;
    std::vector<Throughput> alone, withWaiters;
    long waiterCalls = 0;
    double aloneRate = 0, waitingRate = 0, drop = 0;
    double seconds = 0;

    std::string label() const { return fmt("%g ms timer", timerMs); }
    const BringUp* bringUp(int slots) const
    {
        for (const BringUp& b : bringUps)
            if (b.slots == slots) return &b;
        return nullptr;
    }
};

// The calls that wait with nothing to do: SCardGetStatusChangeA on a reader
// whose state does not change, and SCardTransmit to a card that takes
// `w.waitMs` before it answers. Each runs on a thread of its own, whose
// processor time over the wait is the figure.
void measureWaits(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                  const std::function<void(const std::string&)>& step)
{
    step("a waiting SCardGetStatusChangeA");
    std::thread([&] {
        std::string name = readerName(rig.serial, 40);
        SCARD_READERSTATEA state{};
        state.szReader = name.c_str();
        // The reader's state as it is (its card is connected, so in use).
        SCardGetStatusChangeA(rig.context, 0, &state, 1);
        state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
        double cpu0 = ownThreadCpuMs(), proc0 = processCpuMs();
        Clock::time_point start = Clock::now();
        run.waitResult = SCardGetStatusChangeA(rig.context, w.waitMs, &state, 1);
        run.waitWall = msSince(start);
        run.waitThreadCpu = ownThreadCpuMs() - cpu0;
        run.waitProcess = processCpuMs() - proc0;
    }).join();

    step("a SCardTransmit waiting on a slow card");
    const int slowSlot = 41;
    rackSimSetCardDelayMs(rig.device, slowSlot, w.waitMs);
    std::thread([&] {
        BYTE answer[64];
        DWORD length = sizeof answer;
        double cpu0 = ownThreadCpuMs();
        Clock::time_point start = Clock::now();
        run.transmitWaitResult = SCardTransmit(handles[slowSlot - 1], &g_rgSCardT1Pci, kShortCommand.data(),
                                               static_cast<DWORD>(kShortCommand.size()), nullptr, answer, &length);
        run.transmitWaitWall = msSince(start);
        run.transmitWaitCpu = ownThreadCpuMs() - cpu0;
    }).join();
    rackSimSetCardDelayMs(rig.device, slowSlot, 0);
}

// Short exchanges on 1 to 64 threads, each on a reader of its own.
void measureShortScaling(Run& run, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                         const std::function<void(const std::string&)>& step)
{
    for (int n : w.threadCounts) {
        step("short exchanges, " + std::to_string(n) + " threads");
        run.shortRuns.push_back(measureThroughput(handles, w.shortShape, kShortCommand, n, w.window, w.warm));
    }
}

// Only what the waiting calls and the thread scaling need: one rack of 64
// slots, its readers connected, short exchanges and the two waits.
void runLoadOnly(Run& run, const Workload& w, const std::function<void(const std::string&)>& progress)
{
    Clock::time_point runStart = Clock::now();
    auto step = [&](const std::string& what) { progress(run.label() + ": " + what); };
    Rig rig;
    step("bring-up of 64 slots");
    run.bringUps.push_back(startRack(rig, "BENCH064", 64, run.timerMs));
    step("connecting 64 readers");
    std::vector<SCARDHANDLE> handles = connectAll(rig, 64);
    run.connected = static_cast<int>(std::count_if(handles.begin(), handles.end(), [](SCARDHANDLE h) { return h != 0; }));
    measureShortScaling(run, handles, w, step);
    measureWaits(run, rig, handles, w, step);
    stopRack();
    run.seconds = msSince(runStart) / 1000.0;
}

void runOne(Run& run, const Workload& w, const std::function<void(const std::string&)>& progress)
{
    Clock::time_point runStart = Clock::now();
    const double timer = run.timerMs;
    auto step = [&](const std::string& what) { progress(run.label() + ": " + what); };

    // Bring-up.
    Rig rig;
    for (int slots : {8, 240}) {
        step("bring-up of " + std::to_string(slots) + " slots");
        run.bringUps.push_back(startRack(rig, fmt("BENCH%03d", slots), slots, timer));
        stopRack();
    }
    step("bring-up of 64 slots (stays up for the exchanges)");
    run.bringUps.insert(run.bringUps.begin() + 1, startRack(rig, "BENCH064", 64, timer));

    step("connecting 64 readers");
    std::vector<SCARDHANDLE> handles = connectAll(rig, 64);
    run.connected = static_cast<int>(std::count_if(handles.begin(), handles.end(), [](SCARDHANDLE h) { return h != 0; }));

    step("library at rest");
    double idle0 = processCpuMs();
    std::this_thread::sleep_for(std::chrono::duration<double>(w.idleWindowS));
    run.idleCpuPerS = (processCpuMs() - idle0) / w.idleWindowS;

    // One exchange at a time.
    step("one exchange at a time");
    run.latencies.push_back(measureLatency(handles[0], w.shortShape, kShortCommand, w.shortRounds));
    rackSimSetFixedAnswer(rig.device, 1, w.longAnswer.data(), static_cast<int>(w.longAnswer.size()));
    run.latencies.push_back(measureLatency(handles[0], w.longShape, w.longCommand, w.longRounds));
    rackSimSetFixedAnswer(rig.device, 1, kShortAnswer.data(), static_cast<int>(kShortAnswer.size()));

    // Many slots at once.
    measureShortScaling(run, handles, w, step);
    for (int a = 1; a <= 64; ++a)
        rackSimSetFixedAnswer(rig.device, a, w.longAnswer.data(), static_cast<int>(w.longAnswer.size()));
    for (int n : w.threadCounts) {
        step("long exchanges, " + std::to_string(n) + " threads");
        run.longRuns.push_back(measureThroughput(handles, w.longShape, w.longCommand, n, w.window, w.warm));
    }
    for (int n : {16, 64}) {
        step("long exchanges, " + std::to_string(n) + " threads, log redacted");
        run.redactedRuns.push_back(measureRedactedThroughput(handles, w.longShape, w.longCommand, n, w.window, w.warm));
    }
    for (int a = 1; a <= 64; ++a)
        rackSimSetFixedAnswer(rig.device, a, kShortAnswer.data(), static_cast<int>(kShortAnswer.size()));

    measureWaits(run, rig, handles, w, step);

    // Exchanges of 16 threads with and without 16 waiting threads, in turns.
    step("16 exchanging threads with and without 16 waiting threads");
    for (int round = 0; round < 2; ++round) {
        run.alone.push_back(measureThroughput(handles, w.shortShape, kShortCommand, 16, w.window, w.warm));
        Waiters waiters(rig, 17, 16);
        run.withWaiters.push_back(measureThroughput(handles, w.shortShape, kShortCommand, 16, w.window, w.warm));
        run.waiterCalls += waiters.calls();
    }
    auto rateOf = [](const std::vector<Throughput>& runs) {
        double sum = 0;
        for (auto& r : runs) sum += r.rate;
        return sum / static_cast<double>(runs.size());
    };
    run.aloneRate = rateOf(run.alone);
    run.waitingRate = rateOf(run.withWaiters);
    run.drop = run.aloneRate > 0 ? (run.aloneRate - run.waitingRate) / run.aloneRate * 100.0 : 0;

    stopRack();
    run.seconds = msSince(runStart) / 1000.0;
}

// ---- The report ----------------------------------------------------------

// The lowest share of the bus + poll figure over the many-slots runs, and
// where it is.
struct Worst {
    double share = 1e9, deviceShare = 1e9;
    std::string at;
};

Worst worstShare(const Run& run)
{
    Worst w;
    for (const auto* runs : {&run.shortRuns, &run.longRuns})
        for (const Throughput& t : *runs) {
            double share = t.rate / t.shape.busPollRate(t.threads);
            if (share < w.share) {
                w.share = share;
                w.at = fmt("%s, %d thread%s", t.shape.tag(), t.threads, t.threads == 1 ? "" : "s");
            }
            w.deviceShare = std::min(w.deviceShare, t.rate / t.shape.deviceRate(t.threads, run.timerMs));
        }
    return w;
}

// ---- Waiting calls and thread scaling --------------------------------------

double coreShare(double cpuMs, double wallMs) { return wallMs > 0 ? cpuMs / wallMs : 0; }

// The highest processor time per exchange over the short runs.
const Throughput* costliest(const Run& run)
{
    const Throughput* worst = nullptr;
    for (const Throughput& t : run.shortRuns)
        if (t.exchanges > 0 && (!worst || t.processCpuMs > worst->processCpuMs)) worst = &t;
    return worst;
}

// Rows of the targets table for the waiting calls and the thread scaling.
void loadTargetRows(std::ostringstream& r, const std::vector<Run>& runs)
{
    r << "| a waiting call uses under 1% of a core (SCardGetStatusChangeA; SCardTransmit to a slow card) | 1%";
    for (const Run& run : runs) {
        double status = coreShare(run.waitThreadCpu, run.waitWall);
        double transmit = coreShare(run.transmitWaitCpu, run.transmitWaitWall);
        r << " | " << verdict(status < kWaitCoreTarget && transmit < kWaitCoreTarget)
          << fmt(": %.1f%% and %.1f%%", status * 100.0, transmit * 100.0);
    }
    r << " | a wait that polls memory without sleeping keeps a core busy for as long as it waits; one that blocks "
         "on a signal costs nothing until it is woken |\n";

    r << "| 16 and 64 threads reach at least 95% of the device figure (short exchanges) | 95%";
    for (const Run& run : runs) {
        double lowest = 1e9;
        int at = 0;
        for (const Throughput& t : run.shortRuns) {
            if (!scalingCounts(t.threads)) continue;
            double share = t.rate / t.shape.deviceRate(t.threads, run.timerMs);
            if (share < lowest) lowest = share, at = t.threads;
        }
        if (at == 0) r << " | -";
        else r << " | " << verdict(lowest >= kScalingTarget) << fmt(": lowest %.0f%% (%d threads)", lowest * 100.0, at);
    }
    r << " | the device figure of the run's timer setting; below it, the host's threads do not get the processor "
         "in time to write the next frame on the pass that frees the bus |\n";

    r << "| processor time per exchange under 1 ms (2 ms for the 32-bit DLL under Wine), short exchanges, 1 to 64 "
         "threads | 1 ms";
    for (const Run& run : runs) {
        const Throughput* worst = costliest(run);
        if (!worst) r << " | -";
        else
            r << " | " << verdict(worst->processCpuMs < kCpuPerExchangeTargetMs)
              << fmt(": highest %.2f ms (%d thread%s)", worst->processCpuMs, worst->threads,
                     worst->threads == 1 ? "" : "s");
    }
    r << " | the process over the window (less the emulator's own thread), divided by the exchanges: the host "
         "threads' waits, the two worker threads of the rack and the trace log |\n";
}

// The waiting calls and the thread scaling side by side with their targets.
std::string loadReport(const std::vector<Run>& runs, const Workload& w)
{
    std::ostringstream r;
    r << "## Waiting calls and thread scaling\n\n";
    r << "A call that waits with nothing to do, on a thread of its own: SCardGetStatusChangeA with a "
      << fmt("%lu", static_cast<unsigned long>(w.waitMs))
      << " ms time-out on a reader whose state does not change, and SCardTransmit to a card that works "
      << fmt("%lu", static_cast<unsigned long>(w.waitMs))
      << " ms before it answers. The figure is the thread's processor time over the wait, as a share of one core; "
         "the target is under 1%.\n\n";
    r << "| waiting call";
    for (const Run& run : runs) r << " | " << run.label() << ": CPU ms in wall ms | " << run.label() << ": % of a core";
    r << " | target |\n|---";
    for (size_t i = 0; i < runs.size(); ++i) r << "|---|---";
    r << "|---|\n";
    r << "| SCardGetStatusChangeA, no change";
    for (const Run& run : runs)
        r << " | " << fmt("%.0f in %.0f (0x%08X)", run.waitThreadCpu, run.waitWall, static_cast<unsigned>(run.waitResult))
          << " | " << fmt("%.1f%%", coreShare(run.waitThreadCpu, run.waitWall) * 100.0);
    r << " | under 1% |\n| SCardTransmit, slow card";
    for (const Run& run : runs)
        r << " | "
          << fmt("%.0f in %.0f (0x%08X)", run.transmitWaitCpu, run.transmitWaitWall,
                 static_cast<unsigned>(run.transmitWaitResult))
          << " | " << fmt("%.1f%%", coreShare(run.transmitWaitCpu, run.transmitWaitWall) * 100.0);
    r << " | under 1% |\n\n";

    r << "Short exchanges (5-byte command, 2-byte answer) on 1, 4, 16 and 64 threads, each on a reader of its own "
         "of one 64-slot rack, beside the device figure of the same timer setting. Targets: 95% of the device "
         "figure at 16 and 64 threads; under "
      << fmt("%.0f", kCpuPerExchangeTargetMs) << " ms of processor time per exchange (under "
      << fmt("%.0f", kCpuPerExchangeWineMs) << " ms for the 32-bit DLL under Wine).\n\n";
    r << "| threads";
    for (const Run& run : runs)
        for (const char* column : {"exchanges/s", "device /s", "% of device", "CPU ms/exch", "cores busy"})
            r << " | " << run.label() << ": " << column;
    r << " | targets |\n|---";
    for (size_t i = 0; i < runs.size(); ++i) r << "|---|---|---|---|---";
    r << "|---|\n";
    for (size_t i = 0; i < runs[0].shortRuns.size(); ++i) {
        int threads = runs[0].shortRuns[i].threads;
        r << "| " << threads;
        for (const Run& run : runs) {
            const Throughput& t = run.shortRuns[i];
            double device = t.shape.deviceRate(threads, run.timerMs);
            r << " | " << fmt("%.1f", t.rate) << " | " << fmt("%.1f", device) << " | " << percent(t.rate, device)
              << " | " << fmt("%.2f", t.processCpuMs) << " | " << fmt("%.2f", t.cores);
        }
        r << " | " << (scalingCounts(threads) ? "95% of device; " : "") << "under "
          << fmt("%.0f", kCpuPerExchangeTargetMs) << " ms |\n";
    }
    r << "\n";
    return r.str();
}

std::string report(const std::vector<Run>& runs, const Settings& settings, const Workload& w,
                   const std::vector<TraceCost>& traces, const std::string& when, const std::string& host, double totalS)
{
    std::ostringstream r;
    auto groupHeader = [&](const std::string& common, const std::vector<std::string>& perRun) {
        std::string head = "| " + common, rule;
        size_t columns = static_cast<size_t>(std::count(common.begin(), common.end(), '|')) + 1;
        for (const Run& run : runs)
            for (const std::string& c : perRun) {
                head += " | " + run.label() + ": " + c;
                ++columns;
            }
        head += " |\n";
        for (size_t i = 0; i < columns; ++i) rule += "|---";
        r << head << rule << "|\n";
    };
    std::string timers;
    for (const Run& run : runs) timers += (timers.empty() ? "" : ", ") + fmt("%g ms", run.timerMs);

    r << "# Benchmark against the bus limit\n\n";
    r << "Run of " << when << ", " << fmt("%.0f s", totalS) << ", " << host << (settings.quick ? ", quick mode" : "")
      << ". The library runs in this process against the rack emulator with wire pacing on (115,200 baud 8N1 each "
         "way, 62-byte USB packets), in real time, with its trace log on (file in /tmp). The library leaves the FTDI "
         "chip's latency timer as the device driver has it; the benchmark runs once per driver setting ("
      << timers
      << "): 16 ms is the driver's default, 2 ms a driver tuned for a card farm. Each run brings its racks up "
         "afresh and measures everything below. Figures are wall-clock and move with the load of the machine: "
         "compare runs made on a quiet machine only.\n\n";

    // ---- Targets first: the verdicts.
    r << "## Against the targets\n\n";
    r << "Each target for each setting of the latency timer: the measured figure, the limit, met or not, and what "
         "holds the figure where it is.\n\n";
    {
        std::string head = "| target | limit";
        for (const Run& run : runs) head += " | " + run.label();
        r << head << " | what bounds it |\n|---|---";
        for (size_t i = 0; i < runs.size(); ++i) r << "|---";
        r << "|---|\n";
    }
    for (size_t k = 0; k < runs[0].latencies.size(); ++k) {
        const Shape& shape = runs[0].latencies[k].shape;
        double wire = shape.roundTripMs(0);
        r << "| one exchange (" << shape.tag() << "): median round trip within wire + 6 ms | "
          << fmt("%.2f ms", wire + 6.0);
        std::string bounds;
        for (const Run& run : runs) {
            const Latency& l = run.latencies[k];
            double med = percentile(l.samples, 0.5), device = shape.roundTripMs(run.timerMs);
            r << " | " << verdict(med <= wire + 6.0) << fmt(": %.2f ms, %+.2f ms against the limit", med, med - (wire + 6.0));
            bounds += fmt("%s%s: timer %+.1f ms, then %+.1f ms of receive pass and library work", bounds.empty() ? "" : "; ",
                          run.label().c_str(), device - wire, med - device);
        }
        r << " | wire " << fmt("%.2f ms", wire) << ", then the latency timer holds the last packet, then the next "
          << "5 ms receive pass sees it (0-5 ms). " << bounds << " |\n";
    }
    {
        r << "| many slots: at least 90% of what the bus and the 5 ms poll allow | 90%";
        std::string bounds;
        for (const Run& run : runs) {
            Worst worst = worstShare(run);
            r << " | " << verdict(worst.share >= 0.9)
              << fmt(": lowest %.0f%% (%s); %.0f%% or more of the device figure", worst.share * 100.0, worst.at.c_str(),
                     worst.deviceShare * 100.0);
            int timerRows = 0, rows = 0;
            for (const auto* set : {&run.shortRuns, &run.longRuns})
                for (const Throughput& t : *set) {
                    ++rows;
                    if (t.shape.bound(t.threads, run.timerMs) == "latency timer") ++timerRows;
                }
            bounds += fmt("%s%s: the latency timer in %d of %d runs", bounds.empty() ? "" : "; ", run.label().c_str(),
                          timerRows, rows);
        }
        r << " | the next frame waits for the acknowledge (the answer, for one thread alone) to be readable, which "
             "the latency timer delays when it shares no full 62-byte packet, and then for the receive pass that "
             "sees it. "
          << bounds << "; the others are held by the 5 ms poll or the wire (see the bound column below) |\n";
    }
    {
        const BringUp* first = runs[0].bringUp(240);
        if (first) {
            double bound = first->fixedPausesMs + first->wireMsTotal;
            r << "| bring-up of 240 slots within 1 s above the fixed pauses and the wire | " << fmt("%.0f ms", bound + 1000.0);
            std::string bounds;
            for (const Run& run : runs) {
                const BringUp* b = run.bringUp(240);
                if (!b) continue;
                r << " | " << verdict(b->enumeratedMs <= bound + 1000.0)
                  << fmt(": %.0f ms, %+.0f ms against the limit; %.0f%% of the device figure", b->enumeratedMs,
                         b->enumeratedMs - (bound + 1000.0), b->enumeratedMs / b->deviceMs * 100.0);
                bounds += fmt("%s%s: %.1f ms per slot, bound by the %s (wire alone %.2f ms)", bounds.empty() ? "" : "; ",
                              run.label().c_str(), b->perSlotDeviceMs,
                              b->perSlotDeviceMs > b->perSlotPollMs * 1.02 ? "latency timer" : "5 ms poll",
                              b->perSlotWireMs);
            }
            r << " | the 1,500 ms and 3,000 ms pauses, then one status "
                 "exchange per slot, taking turns on the bus. "
              << bounds << " |\n";
        }
    }
    loadTargetRows(r, runs);
    r << "| a waiting call must not slow the others: drop below 10% with 16 threads waiting | 10%";
    for (const Run& run : runs)
        r << " | " << verdict(run.drop < 10.0)
          << fmt(": %.1f%% (%.1f → %.1f exchanges/s)", run.drop, run.aloneRate, run.waitingRate);
    r << " | processor share: a waiting call sleeps until it is woken and takes no core (see the CPU columns), "
         "while the exchange rate is held by the timer or the poll |\n\n";

    // ---- One exchange.
    r << "## One exchange at a time\n\n";
    r << "SCardTransmit round trip on one reader, nothing else running. *Wire* is the pure line time of the command "
         "frame, the acknowledge and the answer frame; *wire + timer* adds the FTDI chip holding back a packet that "
         "does not fill 62 bytes until its latency timer runs out; the next receive pass adds 0 to 5 ms on top.\n\n";
    groupHeader("exchange | bytes out / back | wire ms | limit: wire + 6 ms",
                {"median ms", "p99 ms", "wire + timer ms", "median - (wire + timer)"});
    for (size_t k = 0; k < runs[0].latencies.size(); ++k) {
        const Shape& shape = runs[0].latencies[k].shape;
        double wire = shape.roundTripMs(0);
        r << "| " << shape.name << " | " << shape.commandFrame() << " / " << kAckBytes << "+" << shape.answerFrame()
          << " | " << fmt("%.2f", wire) << " | " << fmt("%.2f", wire + 6.0);
        for (const Run& run : runs) {
            const Latency& l = run.latencies[k];
            double med = percentile(l.samples, 0.5), device = shape.roundTripMs(run.timerMs);
            r << " | " << fmt("%.2f", med) << " | " << fmt("%.2f", percentile(l.samples, 0.99)) << " | "
              << fmt("%.2f", device) << " | " << fmt("%+.2f", med - device);
        }
        r << " |\n";
    }
    r << "\n| timer | exchange | n | failed | caller CPU ms/exch | process CPU ms/exch | log entries/exch |\n"
         "|---|---|---|---|---|---|---|\n";
    for (const Run& run : runs)
        for (const Latency& l : run.latencies)
            r << "| " << fmt("%g ms", run.timerMs) << " | " << l.shape.tag() << " | " << l.samples.size() << " | "
              << l.failures << " | " << fmt("%.2f", l.callerCpuMs) << " | " << fmt("%.2f", l.processCpuMs) << " | "
              << fmt("%.1f", l.entries) << " |\n";
    r << "\n";

    // ---- Many slots.
    r << "## Many slots at once\n\n";
    r << "Host threads, each on its own reader of one 64-slot rack, exchanging without pause for "
      << fmt("%.1f", w.window) << " s after " << fmt("%.1f", w.warm)
      << " s of warm-up. *Bus* is the bus limit: 11,520 B/s each way and one message at a time, the next frame "
         "leaving the moment the acknowledge of the last one is in (the answer, for one thread alone), while the "
         "answer streams back as the next command goes out. *Bus + poll* is what the bus and the 5 ms receive poll "
         "allow together: the next frame leaves at the first receive pass after that. *Device* is the same with the "
         "chip's latency timer at the run's setting, as the emulator (and an FTDI chip) behaves. *Bound* names the "
         "constant that holds the device figure down: the latency timer where it lies below bus + poll (with the "
         "write on the pass or 1 ms late), the poll where bus + poll lies below the bus, else the wire.\n\n";
    groupHeader("exchange | threads | bus /s | bus + poll /s",
                {"exchanges/s", "device /s (write 1 ms late)", "% of device", "% of bus + poll", "bound"});
    auto throughputRows = [&](const std::vector<Throughput> Run::*which) {
        const std::vector<Throughput>& first = runs[0].*which;
        for (size_t i = 0; i < first.size(); ++i) {
            const Shape& shape = first[i].shape;
            int threads = first[i].threads;
            r << "| " << shape.tag() << " | " << threads << " | " << fmt("%.1f", shape.busRate(threads)) << " | "
              << fmt("%.1f", shape.busPollRate(threads));
            for (const Run& run : runs) {
                const Throughput& t = (run.*which)[i];
                double device = shape.deviceRate(threads, run.timerMs);
                r << " | " << fmt("%.1f", t.rate) << " | "
                  << fmt("%.1f (%.1f)", device, shape.deviceRate(threads, run.timerMs, kLateWriteMs)) << " | "
                  << percent(t.rate, device)
                  << " | " << percent(t.rate, shape.busPollRate(threads)) << " | " << shape.bound(threads, run.timerMs);
            }
            r << " |\n";
        }
    };
    throughputRows(&Run::shortRuns);
    throughputRows(&Run::longRuns);
    {
        std::string shortfalls;
        for (const Run& run : runs)
            for (const auto* set : {&run.shortRuns, &run.longRuns})
                for (const Throughput& t : *set) {
                    double device = t.shape.deviceRate(t.threads, run.timerMs);
                    if (t.rate >= 0.9 * device) continue;
                    double late = t.shape.deviceRate(t.threads, run.timerMs, kLateWriteMs);
                    shortfalls += fmt("%s%s, %s, %d thread%s: %.0f%% of the device figure, %.0f%% of it with the write "
                                      "1 ms late (%s), %.2f cores busy",
                                      shortfalls.empty() ? "" : "; ", run.label().c_str(), t.shape.tag(), t.threads,
                                      t.threads == 1 ? "" : "s", t.rate / device * 100.0, t.rate / late * 100.0,
                                      t.rate >= 0.9 * late ? "the pass rounding" : "processor time", t.cores);
                }
        r << "\nThe device figure counts on the next frame leaving on the very receive pass that sees the "
             "acknowledge; the figure in brackets has it leave 1 ms later, as when the scheduler is slow to wake the "
             "writing thread. Where the acknowledge becomes readable just before a pass, that 1 ms costs a whole "
             "pass. A measured rate below 90% of the device figure but near the late one is held by that rounding to "
             "whole passes; one below both by processor time: the library's own work (see the cores busy "
             "below) and whatever else the machine runs. "
          << (shortfalls.empty() ? std::string("None does in this run.") : "Below 90% in this run: " + shortfalls + ".")
          << "\n";
    }
    r << "\n![Exchanges per second against concurrent slots](exchanges.svg)\n\n";
    r << "Processor time and trace log of the same runs:\n\n";
    r << "| timer | exchange | threads | failed | process CPU ms/exch | caller CPU ms/exch | CPU cores busy | log "
         "entries/exch | log KiB/s |\n|---|---|---|---|---|---|---|---|---|\n";
    for (const Run& run : runs)
        for (const auto* set : {&run.shortRuns, &run.longRuns})
            for (const Throughput& t : *set)
                r << "| " << fmt("%g ms", run.timerMs) << " | " << t.shape.tag() << " | " << t.threads << " | "
                  << t.failures << " | " << fmt("%.2f", t.processCpuMs) << " | " << fmt("%.2f", t.callerCpuMs) << " | "
                  << fmt("%.2f", t.cores) << " | " << fmt("%.1f", t.entries) << " | " << fmt("%.0f", t.logKBps)
                  << " |\n";
    for (const Run& run : runs) redactedLogRows(r, run.timerMs, run.redactedRuns);
    r << "\n";

    // ---- Waiting calls.
    r << "## A waiting call must not slow the others\n\n";
    r << "16 threads exchange short commands on readers 1-16; in alternate windows 16 more threads wait in "
         "SCardGetStatusChangeA (500 ms time-out, called again at once) on readers 17-32, whose state does not "
         "change.\n\n";
    groupHeader("window", {"alone /s", "with 16 waiting /s", "cores busy alone", "cores busy with waiters"});
    for (size_t i = 0; i < runs[0].alone.size(); ++i) {
        r << "| " << i + 1;
        for (const Run& run : runs)
            r << " | " << fmt("%.1f", run.alone[i].rate) << " | " << fmt("%.1f", run.withWaiters[i].rate) << " | "
              << fmt("%.2f", run.alone[i].cores) << " | " << fmt("%.2f", run.withWaiters[i].cores);
        r << " |\n";
    }
    r << "| mean";
    for (const Run& run : runs) r << " | " << fmt("%.1f", run.aloneRate) << " | " << fmt("%.1f", run.waitingRate) << " | | ";
    r << " |\n";
    r << "| drop";
    for (const Run& run : runs) r << " | " << fmt("%.1f%%", run.drop) << " | " << run.waiterCalls << " waiting calls timed out | | ";
    r << " |\n\n";

    r << loadReport(runs, w);

    // ---- Bring-up.
    r << "## Bring-up\n\n";
    r << "From the call of KickOff to all racks enumerated (polled every 0.5 ms). One rack, every slot with a card ("
      << kAtr.size()
      << "-byte ATR). *Pauses + wire* is the reset's 1,500 ms and the 3,000 ms after the slot "
         "map, plus the wire time of enumerate and slot map, per slot a status request, its acknowledge and the "
         "status reply, and the closing C2 both ways; KickOff itself no longer pauses, on either platform. "
         "*Device* adds the latency timer and the receive poll to every status exchange, which take turns on "
         "the bus; *poll only* is the same without the timer. *Per slot* is the status collection divided by the "
         "slots.\n\n";
    groupHeader("slots | pauses + wire ms | path here ms | poll only ms",
                {"enumerated ms", "over pauses + wire", "device ms", "% of device", "per slot ms"});
    for (size_t i = 0; i < runs[0].bringUps.size(); ++i) {
        const BringUp& f = runs[0].bringUps[i];
        r << "| " << f.slots << " | " << fmt("%.0f", f.fixedPausesMs + f.wireMsTotal) << " | "
          << fmt("%.0f", f.criticalPathMs) << " | " << fmt("%.0f", f.pollOnlyMs);
        for (const Run& run : runs) {
            const BringUp& b = run.bringUps[i];
            r << " | " << fmt("%.0f", b.enumeratedMs) << " | " << fmt("%+.0f", b.enumeratedMs - (b.fixedPausesMs + b.wireMsTotal))
              << " | " << fmt("%.0f", b.deviceMs) << " | " << percent(b.enumeratedMs, b.deviceMs) << " | "
              << fmt("%.2f", (b.collectedMs - b.firstStatusMs) / b.slots);
        }
        r << " |\n";
    }
    r << "\nPhases, from the emulator's wire log:\n\n";
    r << "| timer | slots | context ms | reset → enumerate ms | enumerate → first status ms | status collection ms | "
         "per slot: measured / device / poll only / wire ms |\n|---|---|---|---|---|---|---|\n";
    for (const Run& run : runs)
        for (const BringUp& b : run.bringUps)
            r << "| " << fmt("%g ms", run.timerMs) << " | " << b.slots << " | " << fmt("%.0f", b.contextMs) << " | "
              << fmt("%.0f", b.enumerateMs - b.resetMs) << " | " << fmt("%.0f", b.firstStatusMs - b.enumerateMs)
              << " | " << fmt("%.0f", b.collectedMs - b.firstStatusMs) << " | "
              << fmt("%.2f / %.2f / %.2f / %.2f", (b.collectedMs - b.firstStatusMs) / b.slots, b.perSlotDeviceMs,
                     b.perSlotPollMs, b.perSlotWireMs)
              << " |\n";
    r << "\n";

    // ---- Processor time.
    r << "## Processor time\n\n";
    {
        std::string head = "| what";
        for (const Run& run : runs) head += " | " + run.label();
        r << head << " |\n|---";
        for (size_t i = 0; i < runs.size(); ++i) r << "|---";
        r << "|\n";
    }
    r << "| library at rest, 64-slot rack (two worker threads polling every 5 ms), ms CPU per s";
    for (const Run& run : runs) r << " | " << fmt("%.1f", run.idleCpuPerS);
    r << " |\n| a waiting SCardGetStatusChangeA, its own thread, ms CPU per s of wait";
    for (const Run& run : runs)
        r << " | " << fmt("%.0f (%.0f ms CPU in %.0f ms, result 0x%08X)", run.waitThreadCpu / run.waitWall * 1000.0,
                          run.waitThreadCpu, run.waitWall, static_cast<unsigned>(run.waitResult));
    r << " |\n| the same wait, whole process, ms CPU per s";
    for (const Run& run : runs) r << " | " << fmt("%.0f", run.waitProcess / run.waitWall * 1000.0);
    r << " |\n";
    for (size_t k = 0; k < runs[0].latencies.size(); ++k) {
        r << "| one " << runs[0].latencies[k].shape.tag() << " exchange alone, caller / process ms CPU";
        for (const Run& run : runs)
            r << " | " << fmt("%.2f / %.2f", run.latencies[k].callerCpuMs, run.latencies[k].processCpuMs);
        r << " |\n";
    }
    r << "\nPer exchange under load, see the CPU columns of the tables above.\n\n";

    // ---- Trace entry.
    r << "## One trace entry\n\n";
    r << "logWrite into a file in /tmp, one thread, nothing else running.\n\n";
    r << "| entry | characters | median µs | p99 µs | mean µs |\n|---|---|---|---|---|\n";
    for (const TraceCost& t : traces)
        r << "| " << t.what << " | " << t.length << " | " << fmt("%.1f", t.medianUs) << " | " << fmt("%.1f", t.p99Us)
          << " | " << fmt("%.1f", t.meanUs) << " |\n";
    if (!runs[0].latencies.empty())
        r << "\nWith " << fmt("%.1f", runs[0].latencies[0].entries) << " entries per short exchange, the log takes about "
          << fmt("%.2f ms", runs[0].latencies[0].entries * traces[0].meanUs / 1000.0)
          << " of each exchange, all of it under the one process-wide log lock.\n";
    r << "\nReaders connected for the runs:";
    for (size_t k = 0; k < runs.size(); ++k)
        r << (k ? "; " : " ") << runs[k].connected << " of 64 (" << runs[k].label() << fmt(" run, %.0f s)", runs[k].seconds);
    r << ".\n";
    return r.str();
}

std::string plot(const std::vector<Run>& runs)
{
    const char* colors[] = {"#1f5fa8", "#c2571a", "#2a8a3a", "#7a3fa0"};
    std::vector<Panel> panels;
    for (const std::vector<Throughput> Run::*which : {&Run::shortRuns, &Run::longRuns}) {
        const std::vector<Throughput>& first = runs[0].*which;
        if (first.empty()) continue;
        const Shape& shape = first[0].shape;
        Panel panel{shape.name, {}};
        Series bus{"bus (wire, one message at a time)", "#555", "8,4", false, {}};
        // Broad and light, so that a figure lying on it stays visible.
        Series busPoll{"bus + 5 ms poll", "#bbb", "", false, {}, 7};
        for (const Throughput& t : first) {
            bus.points.push_back({static_cast<double>(t.threads), shape.busRate(t.threads)});
            busPoll.points.push_back({static_cast<double>(t.threads), shape.busPollRate(t.threads)});
        }
        panel.series.push_back(bus);
        panel.series.push_back(busPoll);
        for (size_t k = 0; k < runs.size(); ++k) {
            const Run& run = runs[k];
            std::string color = colors[k % 4];
            Series measured{"measured, " + run.label(), color, "", true, {}};
            Series device{"device model, " + run.label(), color, "10,3,2,3", false, {}};
            for (const Throughput& t : run.*which) {
                measured.points.push_back({static_cast<double>(t.threads), std::max(t.rate, 0.1)});
                device.points.push_back({static_cast<double>(t.threads), shape.deviceRate(t.threads, run.timerMs)});
            }
            panel.series.push_back(measured);
            panel.series.push_back(device);
        }
        panels.push_back(panel);
    }
    return svgPlot(panels, "Exchanges per second against concurrent slots, wire pacing on");
}

// ---- The fast link beside the driver's settings ---------------------------
//
// Three links side by side on one rack of 64 slots: the driver's default
// latency timer, a driver tuned to 2 ms, and the fast link
// (TESSEL_FAST_LINK), which sets the timer itself and wakes the receive
// thread on received bytes instead of every 5 ms.

constexpr double kTunedTimerMs = 2.0;
constexpr int kFastLinkTimerMs = 2;

struct LinkSetting {
    std::string label;
    double driverTimerMs = kDefaultTimerMs;
    int fastLinkTimerMs = 0;  // 0: the fast link is off

    // The latency timer in force on the device.
    double timerMs() const { return fastLinkTimerMs > 0 ? fastLinkTimerMs : driverTimerMs; }
    // What the emulated device allows: the fast link sees bytes the moment
    // they are readable, the plain link at its next 5 ms pass.
    double deviceRate(const Shape& shape, int threads) const
    {
        return shape.cycleRate(threads, timerMs(), fastLinkTimerMs > 0 ? 0 : kReceivePollMs);
    }
};

struct LinkMeasurement {
    LinkSetting setting;
    Latency latency;
    std::vector<Throughput> runs;  // short exchanges at 16 and 64 slots
};

// The setting is read when the library opens a device: set it before the
// bring-up, and read afresh.
void applyFastLinkSetting(int timerMs)
{
    if (timerMs > 0)
        setenv("TESSEL_FAST_LINK", std::to_string(timerMs).c_str(), 1);
    else
        unsetenv("TESSEL_FAST_LINK");
    platform::testing::rereadSettings();
}

LinkMeasurement measureLink(const LinkSetting& setting, const Workload& w,
                            const std::function<void(const std::string&)>& progress)
{
    LinkMeasurement m;
    m.setting = setting;
    applyFastLinkSetting(setting.fastLinkTimerMs);
    progress(setting.label + ": bring-up of 64 slots");
    Rig rig;
    startRack(rig, "LINK064", 64, setting.driverTimerMs);
    std::vector<SCARDHANDLE> handles = connectAll(rig, 64);
    progress(setting.label + ": one exchange at a time");
    m.latency = measureLatency(handles[0], w.shortShape, kShortCommand, w.shortRounds);
    for (int n : {16, 64}) {
        progress(setting.label + ": short exchanges, " + std::to_string(n) + " threads");
        m.runs.push_back(measureThroughput(handles, w.shortShape, kShortCommand, n, w.window, w.warm));
    }
    stopRack();
    applyFastLinkSetting(0);
    return m;
}

std::vector<LinkMeasurement> compareLinks(const Workload& w, const std::function<void(const std::string&)>& progress)
{
    const std::vector<LinkSetting> settings{
        {"driver default (16 ms)", kDefaultTimerMs, 0},
        {fmt("driver tuned (%g ms)", kTunedTimerMs), kTunedTimerMs, 0},
        {fmt("fast link (%d ms)", kFastLinkTimerMs), kDefaultTimerMs, kFastLinkTimerMs},
    };
    std::vector<LinkMeasurement> measured;
    for (const LinkSetting& setting : settings) measured.push_back(measureLink(setting, w, progress));
    return measured;
}

std::string linkComparisonReport(const std::vector<LinkMeasurement>& links)
{
    std::ostringstream r;
    r << "## The fast link beside the driver's settings\n\n";
    r << "One rack of 64 slots, short exchanges (5-byte command, 2-byte answer). *Device* is the model's figure for "
         "the link: the wire each way, one message at a time, the latency timer in force, and the 5 ms receive "
         "poll, or for the fast link a wake-up the moment bytes are readable. *Bus* is the wire alone.\n\n";
    r << "| Link | Slots | Exchanges/s | Device | Share of device | Bus | Share of bus | CPU ms per exchange |\n";
    r << "|---|---|---|---|---|---|---|---|\n";
    for (const LinkMeasurement& m : links)
        for (const Throughput& t : m.runs) {
            double device = m.setting.deviceRate(t.shape, t.threads);
            double bus = t.shape.busRate(t.threads);
            r << "| " << m.setting.label << " | " << t.threads << " | " << fmt("%.0f", t.rate) << " | "
              << fmt("%.0f", device) << " | " << fmt("%.0f%%", t.rate / device * 100.0) << " | " << fmt("%.0f", bus)
              << " | " << fmt("%.0f%%", t.rate / bus * 100.0) << " | " << fmt("%.3f", t.processCpuMs) << " |\n";
        }
    r << "\n| Link | Median round trip | Wire | Wire + 3 ms | CPU ms per exchange |\n|---|---|---|---|---|\n";
    for (const LinkMeasurement& m : links) {
        double wire = m.latency.shape.roundTripMs(0);
        r << "| " << m.setting.label << " | " << fmt("%.2f ms", percentile(m.latency.samples, 0.5)) << " | "
          << fmt("%.2f ms", wire) << " | " << fmt("%.2f ms", wire + 3.0) << " | "
          << fmt("%.3f", m.latency.processCpuMs) << " |\n";
    }

    if (links.size() == 3) {
        const LinkMeasurement& base = links[0];
        const LinkMeasurement& fast = links[2];
        r << "\n| Fast link target | Slots | Measured | Limit | Verdict |\n|---|---|---|---|---|\n";
        for (size_t i = 0; i < fast.runs.size() && i < base.runs.size(); ++i) {
            const Throughput& t = fast.runs[i];
            double device = fast.setting.deviceRate(t.shape, t.threads);
            r << "| 90% of the device figure | " << t.threads << " | " << fmt("%.0f/s", t.rate) << " | "
              << fmt("%.0f/s", 0.9 * device) << " | " << verdict(t.rate >= 0.9 * device) << " |\n";
            r << "| 5x the driver default | " << t.threads << " | " << fmt("%.0f/s", t.rate) << " | "
              << fmt("%.0f/s", 5.0 * base.runs[i].rate) << " | " << verdict(t.rate >= 5.0 * base.runs[i].rate)
              << " |\n";
            r << "| CPU per exchange not above the default's | " << t.threads << " | "
              << fmt("%.3f ms", t.processCpuMs) << " | " << fmt("%.3f ms", base.runs[i].processCpuMs) << " | "
              << verdict(t.processCpuMs <= base.runs[i].processCpuMs) << " |\n";
        }
        double wire = fast.latency.shape.roundTripMs(0);
        double median = percentile(fast.latency.samples, 0.5);
        r << "| median round trip within wire + 3 ms | 1 | " << fmt("%.2f ms", median) << " | "
          << fmt("%.2f ms", wire + 3.0) << " | " << verdict(median <= wire + 3.0) << " |\n";
    }
    r << "\n";
    return r.str();
}

// ---- Contexts and connections ----------------------------------------------

struct ConnectionCosts {
    double contextPairsPerS = 0;
    long contextPairs = 0;
    long contextFailures = 0;
    double threadSafeConnectMs = 0;  // 10 threads x 10 connect/disconnect pairs, one reader
    int threadSafeFailures = 0;
    size_t threadSafeSelections = 0;  // protocol selections on the wire during it
    std::vector<double> coldConnectMs;
    double coldWireMs = 0;    // selection out, acknowledge and status reply back
    double coldDeviceMs = 0;  // the same with the latency timer in force
};

size_t selectionsTo(int device, int address)
{
    size_t count = 0;
    std::vector<uint8_t> frame(300);
    for (int i = 0, n = rackSimWireLogCount(device); i < n; ++i) {
        const int length = rackSimWireLogEntry(device, i, frame.data(), static_cast<int>(frame.size()), nullptr);
        if (length == 5 && frame[1] == address && (frame[3] == 0x20 || frame[3] == 0x60)) ++count;
    }
    return count;
}

// On the fast link, so that the wire and not the 5 ms poll is what a cold
// connect waits for.
ConnectionCosts measureConnectionCosts(const Workload& w, const std::function<void(const std::string&)>& progress)
{
    ConnectionCosts c;
    applyFastLinkSetting(kFastLinkTimerMs);
    progress("contexts and connections: bring-up of 4 slots");
    Rig rig;
    startRack(rig, "CONN004", 4, kDefaultTimerMs);

    progress("contexts and connections: establish and release");
    const Clock::time_point start = Clock::now();
    const double windowMs = w.window * 1000.0;
    while (msSince(start) < windowMs) {
        SCARDCONTEXT context = 0;
        if (SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context) != SCARD_S_SUCCESS ||
            SCardReleaseContext(context) != SCARD_S_SUCCESS)
            ++c.contextFailures;
        ++c.contextPairs;
    }
    c.contextPairsPerS = static_cast<double>(c.contextPairs) / (msSince(start) / 1000.0);

    progress("contexts and connections: 10 threads x 10 connects to one reader");
    const std::string name = readerName(rig.serial, 1);
    rackSimClearWireLog(rig.device);
    std::atomic<int> failures{0};
    const Clock::time_point tsc = Clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < 10; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                SCARDHANDLE handle = 0;
                DWORD active = 0;
                if (SCardConnectA(rig.context, name.c_str(), SCARD_SHARE_SHARED,
                                  SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &handle, &active) != SCARD_S_SUCCESS ||
                    SCardDisconnect(handle, SCARD_LEAVE_CARD) != SCARD_S_SUCCESS)
                    ++failures;
            }
        });
    for (auto& thread : threads) thread.join();
    c.threadSafeConnectMs = msSince(tsc);
    c.threadSafeFailures = failures.load();
    c.threadSafeSelections = selectionsTo(rig.device, 1);

    progress("contexts and connections: cold connects");
    const std::string cold = readerName(rig.serial, 2);
    for (int round = 0; round < w.shortRounds; ++round) {
        SCARDHANDLE handle = 0;
        DWORD active = 0;
        const Clock::time_point at = Clock::now();
        if (SCardConnectA(rig.context, cold.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active) !=
            SCARD_S_SUCCESS)
            continue;
        c.coldConnectMs.push_back(msSince(at));
        // A reset leaves the card unpowered: the next connect is cold again.
        SCardDisconnect(handle, SCARD_RESET_CARD);
    }
    const size_t statusReply = frameBytes(kAtr.size());
    c.coldWireMs = wireMs(static_cast<double>(kMasterFrameBytes + kAckBytes + statusReply));
    c.coldDeviceMs = polledCycleMs(kMasterFrameBytes, statusReply, true, kFastLinkTimerMs, 0);
    stopRack();
    applyFastLinkSetting(0);
    return c;
}

std::string connectionReport(const ConnectionCosts& c)
{
    std::ostringstream r;
    r << "## Contexts and connections\n\n";
    r << "One rack of 4 slots on the fast link (" << kFastLinkTimerMs << " ms), the wire paced. A context pair is "
         "SCardEstablishContext and SCardReleaseContext once the racks are up. The connect pattern is pcsc-lite's "
         "ThreadSafeConnect: 10 threads with 10 connect/disconnect (leave) pairs each on one reader. A cold connect "
         "selects the protocol of a card nobody holds (each is followed by a disconnect with reset) and waits for "
         "the slot's answer; the emulator's slot answers a selection at once, so its time is the wire: the "
         "selection out, the acknowledge and the status reply back.\n\n";
    const double coldMedian = c.coldConnectMs.empty() ? 0 : percentile(c.coldConnectMs, 0.5);
    r << "| Measure | Measured | Target | Verdict |\n|---|---|---|---|\n";
    r << "| context pairs per second | " << fmt("%.0f/s (%ld pairs, %ld failed)", c.contextPairsPerS, c.contextPairs,
                                                c.contextFailures)
      << " | more than 10,000/s | " << verdict(c.contextPairsPerS > 10000 && c.contextFailures == 0) << " |\n";
    r << "| ThreadSafeConnect, 100 pairs | " << fmt("%.1f ms, %d failed, ", c.threadSafeConnectMs, c.threadSafeFailures)
      << c.threadSafeSelections << " selection(s) on the wire | under 1 s | "
      << verdict(c.threadSafeConnectMs < 1000 && c.threadSafeFailures == 0) << " |\n";
    r << "| cold connect, median of " << c.coldConnectMs.size() << " | " << fmt("%.2f ms", coldMedian)
      << " (p90 " << fmt("%.2f ms", c.coldConnectMs.empty() ? 0 : percentile(c.coldConnectMs, 0.9)) << ")"
      << " | wire " << fmt("%.2f ms", c.coldWireMs) << " + 5 ms = " << fmt("%.2f ms", c.coldWireMs + 5.0) << " | "
      << verdict(!c.coldConnectMs.empty() && coldMedian <= c.coldWireMs + 5.0) << " |\n";
    r << "\nThe model's figure for one cold connect with the " << kFastLinkTimerMs << " ms latency timer: "
      << fmt("%.2f ms", c.coldDeviceMs) << ".\n\n";
    return r.str();
}

}  // namespace

// 16 racks of 240 slots with cards on paced lines, brought up at once: the
// time to the first context and what it lists, against the fixed pauses,
// the wire time of one rack's bring-up and a second; the cost of one
// status-change pass over every record; and the processor time of the idle
// farm (the emulator's own thread taken off).
std::string farmReport(const std::function<void(const std::string&)>& progress)
{
    constexpr int kRacks = 16, kSlots = 240;
    progress("farm: 16 racks of 240 slots");
    rackSimReset();
    restartLog();
    for (int r = 0; r < kRacks; ++r) {
        const int device = rackSimAddDevice("Smart Card Rack", fmt("FARM%02d", r + 1).c_str());
        rackSimAddSlots(device, 1, kSlots);
        for (int a = 1; a <= kSlots; ++a) rackSimInsertCard(device, a, kAtr.data(), static_cast<int>(kAtr.size()));
        rackSimSetWireRealism(device, 1);
    }
    const Clock::time_point start = Clock::now();
    KickOff();
    SCARDCONTEXT context = 0;
    SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    const double contextMs = msSince(start);
    DWORD size = 0;
    SCardListReadersA(context, nullptr, nullptr, &size);
    std::string names(size, '\0');
    if (size > 0) SCardListReadersA(context, nullptr, &names[0], &size);
    std::vector<std::string> listed;
    for (size_t at = 0; at < names.size() && names[at] != '\0'; at = names.find('\0', at) + 1)
        listed.push_back(names.c_str() + at);
    const double statusReply = frameBytes(kAtr.size());
    const double rackWireMs = wireMs(static_cast<double>(kMasterFrameBytes + kSlotMapBytes)) +
                              kSlots * wireMs(kMasterFrameBytes + kAckBytes + statusReply) +
                              wireMs(2.0 * kMasterFrameBytes);
    const double targetMs = kResetPauseMs + kSlotMapPauseMs + rackWireMs + 1000.0;

    progress("farm: status-change passes");
    std::vector<SCARD_READERSTATEA> records(listed.size());
    for (size_t i = 0; i < listed.size(); ++i) {
        records[i] = SCARD_READERSTATEA{};
        records[i].szReader = listed[i].c_str();
    }
    SCardGetStatusChangeA(context, 0, records.data(), static_cast<DWORD>(records.size()));
    for (auto& record : records) record.dwCurrentState = record.dwEventState & ~SCARD_STATE_CHANGED;
    std::vector<double> passes;
    for (int i = 0; i < 50; ++i) {
        const Clock::time_point t = Clock::now();
        SCardGetStatusChangeA(context, 0, records.data(), static_cast<DWORD>(records.size()));
        passes.push_back(msSince(t));
    }

    progress("farm: idle cost");
    const double cpuBefore = processCpuMs();
    const Clock::time_point idleStart = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const double idleShare = (processCpuMs() - cpuBefore) / msSince(idleStart);
    SCardReleaseContext(context);
    stopRack();

    std::ostringstream r;
    r << "| Measure | Figure | Target |\n|---|---|---|\n";
    r << fmt("| First context returned | %.0f ms | %.0f ms (pauses %.0f + wire of one rack %.0f + 1,000): %s |\n",
             contextMs, targetMs, kResetPauseMs + kSlotMapPauseMs, rackWireMs, verdict(contextMs <= targetMs));
    r << fmt("| Readers listed by it | %zu of %d | all: %s |\n", listed.size(), kRacks * kSlots,
             verdict(listed.size() == static_cast<size_t>(kRacks * kSlots)));
    r << fmt("| Status-change pass over %zu records (median, p95 of 50) | %.2f ms, %.2f ms | under 2 ms: %s |\n",
             records.size(), percentile(passes, 50), percentile(passes, 95), verdict(percentile(passes, 50) < 2.0));
    r << fmt("| Idle farm, library's own threads | %.1f%% of a core | under 2%%: %s |\n", idleShare * 100.0,
             verdict(idleShare < 0.02));
    return r.str();
}

int main(int argc, char** argv)
{
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--out" && i + 1 < argc) settings.out = argv[++i];
        else if (arg == "--quick") settings.quick = true;
        else if (arg == "--links-only") settings.linksOnly = true;
        else if (arg == "--load-only") settings.loadOnly = true;
        else if (arg == "--connections-only") settings.connectionsOnly = true;
        else if (arg == "--farm-only") settings.farmOnly = true;
        else if (arg == "--latency-timer" && i + 1 < argc) {
            char* end = nullptr;
            long ms = std::strtol(argv[++i], &end, 10);
            if (*end != 0 || ms < 1 || ms > 255) {
                std::fprintf(stderr, "--latency-timer takes 1 to 255 ms\n");
                return 2;
            }
            settings.timersMs.push_back(static_cast<double>(ms));
        } else {
            std::fprintf(stderr, "usage: %s [--out DIR] [--quick] [--latency-timer MS]... [--links-only | --load-only | --connections-only | --farm-only]\n",
                         argv[0]);
            return 2;
        }
    }
    if (settings.timersMs.empty()) settings.timersMs.push_back(kDefaultTimerMs);

    Workload w;
    if (settings.quick) {
        w.window = 1.5;
        w.warm = 0.3;
        w.idleWindowS = 1.0;
        w.shortRounds = 60;
        w.longRounds = 20;
        w.waitMs = 1000;
    }
    w.longCommand.resize(255);
    for (size_t i = 0; i < w.longCommand.size(); ++i) w.longCommand[i] = static_cast<BYTE>(i);
    w.longAnswer.resize(256);
    for (size_t i = 0; i < w.longAnswer.size(); ++i) w.longAnswer[i] = static_cast<uint8_t>(255 - i);
    w.longAnswer[254] = 0x90;
    w.longAnswer[255] = 0x00;

    g_benchLog = "/tmp/tessel-bench-" + std::to_string(getpid()) + ".log";
    platform::testing::setLogFilePath(g_benchLog);
    const std::string host = hostLine();
    Clock::time_point runStart = Clock::now();
    std::time_t now = std::time(nullptr);
    char when[64];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&now));

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
    for (const TraceCost& row : measureTraceSettings("Tessel BENCH064 R12 Transmit - 00 b0 00 00 02 \n",
                                                     settings.quick ? 2000 : 5000))
        traces.push_back(row);

    if (settings.farmOnly) {
        const std::string text = "# A farm of 16 racks\n\nRun of " + std::string(when) + ", " + host + ".\n\n" +
                                 farmReport(progress);
        std::remove(g_benchLog.c_str());
        progress("done");
        std::printf("%s", text.c_str());
        std::string mkdir = "mkdir -p '" + settings.out + "'";
        if (std::system(mkdir.c_str()) != 0) return 1;
        std::ofstream(settings.out + "/farm-report.md") << text;
        std::fprintf(stderr, "wrote %s/farm-report.md\n", settings.out.c_str());
        return 0;
    }
    if (settings.connectionsOnly) {
        const ConnectionCosts costs = measureConnectionCosts(w, progress);
        std::remove(g_benchLog.c_str());
        progress("done");
        const std::string text = "# Contexts and connections\n\nRun of " + std::string(when) + ", " + host +
                                 (settings.quick ? ", quick mode" : "") + ".\n\n" + connectionReport(costs);
        std::printf("%s", text.c_str());
        std::string mkdir = "mkdir -p '" + settings.out + "'";
        if (std::system(mkdir.c_str()) != 0) return 1;
        std::ofstream(settings.out + "/report.md") << text;
        std::fprintf(stderr, "wrote %s/report.md\n", settings.out.c_str());
        return 0;
    }

    std::vector<Run> runs;
    for (double timer : settings.timersMs) {
        if (settings.linksOnly) break;
        Run run;
        run.timerMs = timer;
        if (settings.loadOnly) runLoadOnly(run, w, progress);
        else runOne(run, w, progress);
        runs.push_back(run);
    }
    std::vector<LinkMeasurement> links;
    if (!settings.loadOnly) links = compareLinks(w, progress);
    std::string connections;
    if (!settings.loadOnly && !settings.linksOnly) connections = connectionReport(measureConnectionCosts(w, progress));
    std::remove(g_benchLog.c_str());
    progress("done");

    std::string text = settings.loadOnly    ? std::string()
                       : settings.linksOnly ? "# The fast link beside the driver's settings\n\nRun of " + std::string(when) +
                                                ", " + host + (settings.quick ? ", quick mode" : "") + ".\n\n"
                                            : report(runs, settings, w, traces, when, host, msSince(runStart) / 1000.0);
    if (settings.loadOnly) {
        text = "# Waiting calls and thread scaling\n\nRun of " + std::string(when) + ", " + host +
               (settings.quick ? ", quick mode" : "") + ".\n\n| target | limit";
        for (const Run& run : runs) text += " | " + run.label();
        text += " | what bounds it |\n|---|---";
        for (size_t i = 0; i < runs.size(); ++i) text += "|---";
        std::ostringstream targets;
        loadTargetRows(targets, runs);
        text += "|---|\n" + targets.str() + "\n" + loadReport(runs, w);
    } else {
        text += linkComparisonReport(links) + connections;
    }
    std::printf("%s", text.c_str());
    std::string svg = runs.empty() || settings.loadOnly ? std::string() : plot(runs);

    std::string mkdir = "mkdir -p '" + settings.out + "'";
    if (std::system(mkdir.c_str()) != 0) {
        std::fprintf(stderr, "cannot make %s\n", settings.out.c_str());
        return 1;
    }
    std::ofstream(settings.out + "/report.md") << text;
    if (!svg.empty()) std::ofstream(settings.out + "/exchanges.svg") << svg;
    std::fprintf(stderr, "wrote %s/report.md%s\n", settings.out.c_str(),
                 svg.empty() ? "" : (" and " + settings.out + "/exchanges.svg").c_str());
    return 0;
}
