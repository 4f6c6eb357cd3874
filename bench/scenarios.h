// The benchmark's scenario families as the runner calls them and the report
// and the plot read them: what each measures, on what workload, and the
// figures it hands back. Each family lives in a scenario_*.cpp of its own.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "bench/bus_model.h"
#include "bench/report_text.h"
#include "bench/rig.h"
#include "bench/throughput.h"

namespace bench {

// Tells what runs next, as it starts.
using Progress = std::function<void(const std::string&)>;

// What the runs do, the same for every setting of the timer.
struct Workload {
    bus_model::Shape shortShape{"short: 5-byte command, 2-byte answer", kShortCommand.size(), kShortAnswer.size()};
    bus_model::Shape longShape{"long: 255-byte command, 256-byte answer", 255, 256};
    std::vector<BYTE> longCommand;
    std::vector<uint8_t> longAnswer;
    std::vector<int> threadCounts{1, 4, 16, 64};
    double window = 4.0, warm = 0.5, idleWindowS = 2.0;
    int shortRounds = 200, longRounds = 80;
    DWORD waitMs = 2000;
};

// ---- Exchanges, measured alike by every family (scenario_exchanges.cpp) ----

struct Latency {
    bus_model::Shape shape;
    std::vector<double> samples;
    int failures = 0;
    double callerCpuMs = 0;   // caller's thread, per exchange
    double processCpuMs = 0;  // whole process, per exchange
    double entries = 0;       // log entries per exchange
};

Latency measureLatency(SCARDHANDLE handle, const bus_model::Shape& shape, const std::vector<BYTE>& command,
                       int rounds);

// `threads` host threads, each on its own slot, exchange without pause;
// counts what completes within the window after a warm-up.
Throughput measureThroughput(const std::vector<SCARDHANDLE>& handles, const bus_model::Shape& shape,
                             const std::vector<BYTE>& command, int threads, double windowS, double warmS);

// ---- Everything measured with one setting of the driver's latency timer -----

struct Run {
    double timerMs = bus_model::kDefaultTimerMs;
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

    std::string label() const { return report_text::fmt("%g ms timer", timerMs); }
    const BringUp* bringUp(int slots) const
    {
        for (const BringUp& b : bringUps)
            if (b.slots == slots) return &b;
        return nullptr;
    }
};

// ---- Exchanges on the rack of 64 slots that stays up (scenario_exchanges.cpp)
//
// Each step of a run names itself through `step` as it starts.

void measureOneAtATime(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                       const Progress& step);
void measureShortScaling(Run& run, const std::vector<SCARDHANDLE>& handles, const Workload& w, const Progress& step);
void measureLongScaling(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                        const Progress& step);

// ---- Bring-up (scenario_bring_up.cpp) ---------------------------------------

// Racks of 8 and 240 slots, then one of 64 that stays up in `rig`; its
// figures go between the other two.
void measureBringUps(Run& run, Rig& rig, const Progress& step);

// 16 racks of 240 slots with cards on paced lines, brought up at once: the
// time to the first context and what it lists, the cost of one
// status-change pass over every record, and the processor time of the idle
// farm (the emulator's own thread taken off).
constexpr int kFarmRacks = 16, kFarmSlots = 240;

struct FarmFigures {
    double contextMs = 0;
    double rackWireMs = 0;  // the wire time of one rack's bring-up
    double targetMs = 0;    // the fixed pauses, that wire time and a second
    size_t listed = 0;      // readers the first context lists
    size_t records = 0;     // records of the status-change passes
    std::vector<double> passes;
    double idleShare = 0;   // of one core
};

FarmFigures measureFarm(const Progress& progress);

// ---- Waiting (scenario_waits.cpp) -------------------------------------------

// The library at rest on the rack that is up: processor time per second.
void measureAtRest(Run& run, const Workload& w, const Progress& step);

// The calls that wait with nothing to do: SCardGetStatusChangeA on a reader
// whose state does not change, and SCardTransmit to a card that takes
// `w.waitMs` before it answers.
void measureWaits(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                  const Progress& step);

// Exchanges of 16 threads with and without 16 waiting threads, in turns.
void measureWaitersBeside(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                          const Progress& step);

// ---- The trace log (scenario_trace.cpp) -------------------------------------

struct TraceCost {
    std::string what;
    size_t length = 0;
    double medianUs = 0, p99Us = 0, meanUs = 0;
};

// One trace entry, short and long, then the short one under the log's
// settings. Runs first, while nothing else of the library runs.
std::vector<TraceCost> measureTraceCosts(bool quick);

// The growth of the log in redact mode, beside the full log's figures.
Throughput measureRedactedThroughput(const std::vector<SCARDHANDLE>& handles, const bus_model::Shape& shape,
                                     const std::vector<BYTE>& command, int threads, double windowS, double warmS);

// ---- The fast link beside the driver's settings (scenario_links.cpp) --------
//
// Three links side by side on one rack of 64 slots: the driver's default
// latency timer, a driver tuned to 2 ms, and the fast link
// (TESSEL_FAST_LINK), which sets the timer itself and wakes the receive
// thread on received bytes instead of every 5 ms.

constexpr double kTunedTimerMs = 2.0;
constexpr int kFastLinkTimerMs = 2;

struct LinkSetting {
    std::string label;
    double driverTimerMs = bus_model::kDefaultTimerMs;
    int fastLinkTimerMs = 0;  // 0: the fast link is off

    // The latency timer in force on the device.
    double timerMs() const { return fastLinkTimerMs > 0 ? fastLinkTimerMs : driverTimerMs; }
    // What the emulated device allows: the fast link sees bytes the moment
    // they are readable, the plain link at its next 5 ms pass.
    double deviceRate(const bus_model::Shape& shape, int threads) const;
};

struct LinkMeasurement {
    LinkSetting setting;
    Latency latency;
    std::vector<Throughput> runs;  // short exchanges at 16 and 64 slots
};

std::vector<LinkMeasurement> compareLinks(const Workload& w, const Progress& progress);

// ---- Contexts and connections (scenario_connections.cpp) --------------------

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

ConnectionCosts measureConnectionCosts(const Workload& w, const Progress& progress);

}  // namespace bench
