// The waiting calls and the thread scaling of the Windows DLL, taken the way
// a host takes them: through the published PC/SC API of winscard.dll, with
// the rack emulator built as the stand-in FTD2XX.dll loaded first so that
// the rack is set up before the library's start-up searches for it. Both
// DLLs come from this program's folder. Prints the same tables as the
// native benchmark's --load-only report, for one setting of the driver's
// latency timer; asserts nothing, and exits 0 unless the set-up fails.
//
//   windows_load_bench [--latency-timer MS] [--quick]
//
// The library searches for racks once, when it is loaded, so one run of
// this program measures one timer setting; scripts/bench.sh --wine runs it
// once per setting.
#include <windows.h>
#include <winscard.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "bench/bus_model.h"
#include "bench/load_targets.h"
#include "bench/report_text.h"
#include "bench/throughput.h"
#include "sim/rack_sim.h"

namespace {

using Clock = std::chrono::steady_clock;
using bus_model::Shape;
using bench::settleThroughput;
using bench::Throughput;
using namespace load_targets;
using report_text::fmt;
using report_text::percent;
using report_text::verdict;

// Each export is typed by its published declaration; a member is resolved
// by its own name.
#define BENCH_API_EXPORTS(X)                                                                                 \
    X(SCardEstablishContext) X(SCardReleaseContext) X(SCardConnectA) X(SCardDisconnect) X(SCardTransmit) \
    X(SCardGetStatusChangeA) X(g_rgSCardT1Pci)
#define BENCH_EMULATOR_EXPORTS(X)                                                                                  \
    X(rackSimReset) X(rackSimAddDevice) X(rackSimAddSlots) X(rackSimInsertCard) X(rackSimSetFixedAnswer)         \
    X(rackSimSetLatencyTimerMs) X(rackSimSetWireRealism) X(rackSimSetCardDelayMs) X(rackSimOwnCpuUs)
#define BENCH_DECLARE_EXPORT(name) decltype(&::name) name = nullptr;

template <typename Target>
bool resolve(HMODULE module, const char* name, Target& out)
{
    out = reinterpret_cast<Target>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (!out) std::fprintf(stderr, "%s is not exported\n", name);
    return out != nullptr;
}
#define BENCH_RESOLVE(name) &&resolve(module, #name, name)

struct Api {
    BENCH_API_EXPORTS(BENCH_DECLARE_EXPORT)
    bool load(HMODULE module) { return true BENCH_API_EXPORTS(BENCH_RESOLVE); }
};
struct Emulator {
    BENCH_EMULATOR_EXPORTS(BENCH_DECLARE_EXPORT)
    bool load(HMODULE module) { return true BENCH_EMULATOR_EXPORTS(BENCH_RESOLVE); }
};

Api g_api;
Emulator g_sim;
int g_device = -1;  // the rack's index in the emulator's device list

// ---- The rack --------------------------------------------------------------

const char* const kSerial = "BENCH064";
constexpr int kSlots = 64;
const BYTE kAtr[] = {0x3B, 0x80, 0x01};  // offers T=1
const BYTE kShortCommand[] = {0x00, 0xB0, 0x00, 0x00, 0x02};
const BYTE kShortAnswer[] = {0x90, 0x00};
// The same readers as the native benchmark waits on.
constexpr int kStatusWaitSlot = 40, kSlowCardSlot = 41;

std::string readerName(int address) { return std::string("Tessel ") + kSerial + " R" + std::to_string(address); }

// ---- Measuring -------------------------------------------------------------

double msSince(Clock::time_point start) { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

double fileTimeMs(const FILETIME& t)
{
    ULARGE_INTEGER value;
    value.LowPart = t.dwLowDateTime;
    value.HighPart = t.dwHighDateTime;
    return static_cast<double>(value.QuadPart) / 10000.0;
}

// User and kernel time together: under Wine, what the process's own Linux
// threads spent; the wineserver's work on its behalf is not in it. The
// emulator's own thread (it signals the fast link's receive event, as the
// driver does on a real machine) is taken off: the figure is the library's
// and the host's.
double processCpuMs()
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    return fileTimeMs(kernel) + fileTimeMs(user) - static_cast<double>(g_sim.rackSimOwnCpuUs()) / 1000.0;
}

double threadCpuMs(HANDLE thread)
{
    FILETIME created, exited, kernel, user;
    if (!GetThreadTimes(thread, &created, &exited, &kernel, &user)) return 0;
    return fileTimeMs(kernel) + fileTimeMs(user);
}

bool exchange(SCARDHANDLE handle)
{
    BYTE answer[64];
    DWORD length = sizeof answer;
    LONG result = g_api.SCardTransmit(handle, g_api.g_rgSCardT1Pci, kShortCommand, sizeof kShortCommand, nullptr,
                                      answer, &length);
    return result == SCARD_S_SUCCESS && length == sizeof kShortAnswer;
}

struct Workload {
    Shape shortShape{"short: 5-byte command, 2-byte answer", sizeof kShortCommand, sizeof kShortAnswer};
    std::vector<int> threadCounts{1, 4, 16, 64};
    double windowS = 4.0, warmS = 0.5;
    DWORD waitMs = 3000;
};

// `threads` host threads, each on its own reader, exchange without pause;
// counts what completes within the window after a warm-up.
Throughput measureThroughput(const std::vector<SCARDHANDLE>& handles, int threads, const Workload& w)
{
    Throughput t;
    t.threads = threads;
    std::atomic<bool> stop{false};
    std::vector<std::atomic<long>> done(static_cast<size_t>(threads));
    std::vector<std::atomic<long>> failed(static_cast<size_t>(threads));
    // Real handles, so that the window can read each thread's times.
    std::vector<HANDLE> own(static_cast<size_t>(threads), nullptr);
    std::atomic<int> started{0};
    for (auto& d : done) d.store(0);
    for (auto& f : failed) f.store(0);
    std::vector<std::thread> workers;
    for (int n = 0; n < threads; ++n) {
        workers.emplace_back([&, n] {
            const size_t i = static_cast<size_t>(n);
            DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &own[i],
                            THREAD_QUERY_LIMITED_INFORMATION, FALSE, 0);
            started.fetch_add(1);
            while (!stop.load(std::memory_order_relaxed)) {
                if (exchange(handles[i])) done[i].fetch_add(1);
                else failed[i].fetch_add(1);
            }
        });
    }
    while (started.load() < threads) Sleep(1);
    auto snapshot = [&](long& count, double& callerCpu) {
        count = 0;
        callerCpu = 0;
        for (size_t i = 0; i < own.size(); ++i) {
            count += done[i].load();
            callerCpu += threadCpuMs(own[i]);
        }
    };
    Sleep(static_cast<DWORD>(w.warmS * 1000));
    long count0, count1;
    double caller0, caller1;
    double proc0 = processCpuMs();
    snapshot(count0, caller0);
    Clock::time_point start = Clock::now();
    Sleep(static_cast<DWORD>(w.windowS * 1000));
    snapshot(count1, caller1);
    double elapsedS = msSince(start) / 1000.0;
    double proc1 = processCpuMs();
    stop.store(true);
    for (auto& worker : workers) worker.join();
    for (HANDLE h : own)
        if (h) CloseHandle(h);

    settleThroughput(t, count1 - count0, elapsedS, proc1 - proc0, caller1 - caller0);
    for (auto& f : failed) t.failures += f.load();
    return t;
}

// One call that waits with nothing to do, on a thread of its own.
struct Wait {
    double threadCpuMs = 0, wallMs = 0;
    LONG result = 0;
    double coreShare() const { return wallMs > 0 ? threadCpuMs / wallMs : 0; }
};

template <typename Call>
Wait measureWait(Call call)
{
    Wait wait;
    std::thread([&] {
        double cpu0 = threadCpuMs(GetCurrentThread());
        Clock::time_point start = Clock::now();
        wait.result = call();
        wait.wallMs = msSince(start);
        wait.threadCpuMs = threadCpuMs(GetCurrentThread()) - cpu0;
    }).join();
    return wait;
}

// ---- Set-up ----------------------------------------------------------------

std::wstring besideThisProgram(const wchar_t* file)
{
    wchar_t path[MAX_PATH];
    std::wstring folder(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return folder.substr(0, folder.find_last_of(L'\\') + 1) + file;
}

// One rack of 64 slots, each with a card that answers 90 00, the line paced
// as the wire is, and the driver's latency timer at `timerMs`.
bool setUpRack(unsigned timerMs)
{
    HMODULE emulator = LoadLibraryW(besideThisProgram(L"FTD2XX.dll").c_str());
    if (!emulator || !g_sim.load(emulator)) {
        std::fprintf(stderr, "the rack emulator does not load as FTD2XX.dll (error %lu)\n", GetLastError());
        return false;
    }
    g_sim.rackSimReset();
    const int device = g_device = g_sim.rackSimAddDevice("Smart Card Rack", kSerial);
    g_sim.rackSimAddSlots(device, 1, kSlots);
    for (int a = 1; a <= kSlots; ++a) {
        g_sim.rackSimInsertCard(device, a, kAtr, sizeof kAtr);
        g_sim.rackSimSetFixedAnswer(device, a, kShortAnswer, sizeof kShortAnswer);
    }
    g_sim.rackSimSetLatencyTimerMs(device, timerMs);
    g_sim.rackSimSetWireRealism(device, 1);
    return true;
}

bool loadLibrary()
{
    const std::wstring path = besideThisProgram(L"winscard.dll");
    HMODULE library = LoadLibraryW(path.c_str());
    if (!library || !g_api.load(library)) {
        std::fprintf(stderr, "winscard.dll does not load from %ls (error %lu)\n", path.c_str(), GetLastError());
        return false;
    }
    return true;
}

// Connects to every slot, all at once: a connect pauses 1 s.
std::vector<SCARDHANDLE> connectAll(SCARDCONTEXT context)
{
    std::vector<SCARDHANDLE> handles(kSlots, 0);
    std::vector<std::thread> threads;
    for (int a = 1; a <= kSlots; ++a) {
        threads.emplace_back([&, a] {
            std::string name = readerName(a);
            DWORD protocol = 0;
            g_api.SCardConnectA(context, name.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1,
                                &handles[static_cast<size_t>(a - 1)], &protocol);
        });
    }
    for (auto& t : threads) t.join();
    return handles;
}

// ---- The report --------------------------------------------------------------

struct Run {
    unsigned timerMs = 16;
    double readyMs = 0;  // loading the library to the return of SCardEstablishContext
    std::vector<Throughput> scaling;
    Wait status, transmit;
    std::string label() const { return fmt("%u ms timer", timerMs); }
};

// Where this program runs: Wine names itself through ntdll.
std::string hostLine()
{
    SYSTEM_INFO info;
    GetNativeSystemInfo(&info);
    std::string line = fmt("%lu processors", static_cast<unsigned long>(info.dwNumberOfProcessors));
    using WineVersion = const char*(CDECL*)();
    auto wineVersion = reinterpret_cast<WineVersion>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")));
    return line + (wineVersion ? fmt(", under Wine %s", wineVersion()) : std::string(", on Windows"));
}

std::string report(const Run& run, const Workload& w, bool quick)
{
    const Shape& shape = w.shortShape;
    std::string r;
    std::time_t now = std::time(nullptr);
    char when[64];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&now));
    r += fmt("# Waiting calls and thread scaling, %u-bit DLL\n\n", static_cast<unsigned>(8 * sizeof(void*)));
    r += "Run of " + std::string(when) + ", " + hostLine() + (quick ? ", quick mode" : "") +
         fmt(". Loading winscard.dll to the return of SCardEstablishContext: %.0f ms.\n\n", run.readyMs);

    r += "| target | limit | " + run.label() + " | what bounds it |\n|---|---|---|---|\n";
    r += "| a waiting call uses under 1% of a core (SCardGetStatusChangeA; SCardTransmit to a slow card) | 1% | " +
         std::string(verdict(run.status.coreShare() < kWaitCoreTarget && run.transmit.coreShare() < kWaitCoreTarget)) +
         fmt(": %.1f%% and %.1f%%", run.status.coreShare() * 100.0, run.transmit.coreShare() * 100.0) +
         " | a wait that polls memory without sleeping keeps a core busy for as long as it waits; one that blocks "
         "on a signal costs nothing until it is woken |\n";
    double lowest = 1e9, highest = -1;
    int lowestAt = 0, highestAt = 0;
    for (const Throughput& t : run.scaling) {
        double share = t.rate / shape.deviceRate(t.threads, run.timerMs);
        if (scalingCounts(t.threads) && share < lowest) lowest = share, lowestAt = t.threads;
        if (t.exchanges > 0 && t.processCpuMs > highest) highest = t.processCpuMs, highestAt = t.threads;
    }
    r += "| 16 and 64 threads reach at least 95% of the device figure (short exchanges) | 95% | ";
    r += lowestAt == 0 ? std::string("-")
                       : verdict(lowest >= kScalingTarget) + fmt(": lowest %.0f%% (%d threads)", lowest * 100.0, lowestAt);
    r += " | the device figure of the run's timer setting; below it, the host's threads do not get the processor "
         "in time to write the next frame on the pass that frees the bus |\n";
    r += fmt("| processor time per exchange under %.0f ms under Wine, short exchanges, 1 to 64 threads | %.0f ms | ",
             kCpuPerExchangeWineMs, kCpuPerExchangeWineMs);
    r += highestAt == 0 ? std::string("-")
                        : verdict(highest < kCpuPerExchangeWineMs) +
                              fmt(": highest %.2f ms (%d thread%s)", highest, highestAt, highestAt == 1 ? "" : "s");
    r += " | the process over the window (less the emulator's own thread), divided by the exchanges: the host "
         "threads' waits, the two worker threads of the rack and the trace log; the wineserver's work is not in it "
         "|\n\n";

    r += "## Waiting calls and thread scaling\n\n";
    r += fmt("A call that waits with nothing to do, on a thread of its own: SCardGetStatusChangeA with a %lu ms "
             "time-out on a reader whose state does not change, and SCardTransmit to a card that works %lu ms "
             "before it answers. The figure is the thread's processor time over the wait (GetThreadTimes), as a "
             "share of one core; the target is under 1%%.\n\n",
             static_cast<unsigned long>(w.waitMs), static_cast<unsigned long>(w.waitMs));
    r += "| waiting call | " + run.label() + ": CPU ms in wall ms | " + run.label() + ": % of a core | target |\n";
    r += "|---|---|---|---|\n";
    const struct {
        const char* what;
        const Wait& wait;
    } waits[] = {{"SCardGetStatusChangeA, no change", run.status}, {"SCardTransmit, slow card", run.transmit}};
    for (const auto& row : waits)
        r += fmt("| %s | %.0f in %.0f (0x%08lX) | %.1f%% | under 1%% |\n", row.what, row.wait.threadCpuMs,
                 row.wait.wallMs, static_cast<unsigned long>(row.wait.result), row.wait.coreShare() * 100.0);
    r += "\n";

    r += fmt("Short exchanges (5-byte command, 2-byte answer) on 1, 4, 16 and 64 threads, each on a reader of its "
             "own of one 64-slot rack, for %.1f s after %.1f s of warm-up, beside the device figure of the same "
             "timer setting. Targets: 95%% of the device figure at 16 and 64 threads; under %.0f ms of processor "
             "time per exchange (GetProcessTimes over the window) under Wine.\n\n",
             w.windowS, w.warmS, kCpuPerExchangeWineMs);
    r += "| threads";
    for (const char* column : {"exchanges/s", "device /s", "% of device", "CPU ms/exch", "cores busy"})
        r += " | " + run.label() + ": " + column;
    r += " | targets |\n|---|---|---|---|---|---|---|\n";
    for (const Throughput& t : run.scaling) {
        double device = shape.deviceRate(t.threads, run.timerMs);
        r += fmt("| %d | %.1f | %.1f | ", t.threads, t.rate, device) + percent(t.rate, device) +
             fmt(" | %.2f | %.2f | ", t.processCpuMs, t.cores) + (scalingCounts(t.threads) ? "95% of device; " : "") +
             fmt("under %.0f ms |\n", kCpuPerExchangeWineMs);
    }
    r += "\n";

    r += "Where the processor time of an exchange goes: the host threads (in SCardTransmit, tracing their own "
         "calls) and the rest of the process (the rack's two worker threads), and exchanges that failed.\n\n";
    r += "| threads | " + run.label() + ": host threads CPU ms/exch | " + run.label() + ": rest CPU ms/exch | " +
         run.label() + ": failed |\n|---|---|---|---|\n";
    for (const Throughput& t : run.scaling)
        r += fmt("| %d | %.2f | %.2f | %ld |\n", t.threads, t.callerCpuMs, t.processCpuMs - t.callerCpuMs, t.failures);
    r += "\n";
    return r;
}

}  // namespace

int main(int argc, char** argv)
{
    unsigned timerMs = 16;
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--quick") quick = true;
        else if (arg == "--latency-timer" && i + 1 < argc) {
            char* end = nullptr;
            long ms = std::strtol(argv[++i], &end, 10);
            if (*end != 0 || ms < 1 || ms > 255) {
                std::fprintf(stderr, "--latency-timer takes 1 to 255 ms\n");
                return 2;
            }
            timerMs = static_cast<unsigned>(ms);
        } else {
            std::fprintf(stderr, "usage: %s [--latency-timer MS] [--quick]\n", argv[0]);
            return 2;
        }
    }
    // The report goes out with plain line feeds, as the native one does.
    _setmode(_fileno(stdout), _O_BINARY);

    Workload w;
    if (quick) {
        w.windowS = 1.5;
        w.warmS = 0.3;
        w.waitMs = 1500;
    }
    Run run;
    run.timerMs = timerMs;
    Clock::time_point runStart = Clock::now();
    auto progress = [&](const std::string& what) {
        std::fprintf(stderr, "[%6.1f s] %s: %s\n", msSince(runStart) / 1000.0, run.label().c_str(), what.c_str());
    };

    progress("bring-up of 64 slots");
    if (!setUpRack(timerMs)) return 1;
    Clock::time_point loading = Clock::now();
    if (!loadLibrary()) return 1;
    SCARDCONTEXT context = 0;
    LONG result = g_api.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    run.readyMs = msSince(loading);
    if (result != SCARD_S_SUCCESS) {
        std::fprintf(stderr, "SCardEstablishContext failed (0x%08lX)\n", static_cast<unsigned long>(result));
        return 1;
    }
    progress("connecting 64 readers");
    std::vector<SCARDHANDLE> handles = connectAll(context);
    long connected = std::count_if(handles.begin(), handles.end(), [](SCARDHANDLE h) { return h != 0; });
    if (connected != kSlots) {
        std::fprintf(stderr, "only %ld of %d readers connected\n", connected, kSlots);
        return 1;
    }

    for (int n : w.threadCounts) {
        progress("short exchanges, " + std::to_string(n) + " threads");
        run.scaling.push_back(measureThroughput(handles, n, w));
    }

    progress("a waiting SCardGetStatusChangeA");
    const std::string statusReader = readerName(kStatusWaitSlot);
    // The reader's state as it is (a connected card is in use), fed back
    // whole, as clients do: the measured call then waits.
    SCARD_READERSTATEA known{};
    known.szReader = statusReader.c_str();
    g_api.SCardGetStatusChangeA(context, 0, &known, 1);
    run.status = measureWait([&] {
        SCARD_READERSTATEA state = known;
        state.dwCurrentState = known.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
        return g_api.SCardGetStatusChangeA(context, w.waitMs, &state, 1);
    });

    progress("a SCardTransmit waiting on a slow card");
    g_sim.rackSimSetCardDelayMs(g_device, kSlowCardSlot, w.waitMs);
    run.transmit = measureWait([&] {
        BYTE answer[64];
        DWORD length = sizeof answer;
        return g_api.SCardTransmit(handles[kSlowCardSlot - 1], g_api.g_rgSCardT1Pci, kShortCommand,
                                   sizeof kShortCommand, nullptr, answer, &length);
    });
    g_sim.rackSimSetCardDelayMs(g_device, kSlowCardSlot, 0);

    for (SCARDHANDLE h : handles) g_api.SCardDisconnect(h, SCARD_LEAVE_CARD);
    g_api.SCardReleaseContext(context);
    progress("done");
    std::string text = report(run, w, quick);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return 0;
}
