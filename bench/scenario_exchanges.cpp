// Card exchanges through SCardTransmit: one at a time on one reader, and
// without pause on many readers of one rack at once, short and long.
#include <atomic>
#include <chrono>
#include <thread>

#include "bench/measuring.h"
#include "bench/scenarios.h"
#include "sim/rack_sim.h"

namespace bench {

using bus_model::Shape;

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

    settleThroughput(t, count1 - count0, elapsedS, proc1 - proc0, caller1 - caller0);
    for (auto& f : failed) t.failures += f.load();
    if (t.exchanges > 0) t.entries = static_cast<double>(entries1 - entries0) / static_cast<double>(t.exchanges);
    t.logKBps = static_cast<double>(bytes1 - bytes0) / 1024.0 / elapsedS;
    return t;
}

void measureOneAtATime(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                       const Progress& step)
{
    step("one exchange at a time");
    run.latencies.push_back(measureLatency(handles[0], w.shortShape, kShortCommand, w.shortRounds));
    rackSimSetFixedAnswer(rig.device, 1, w.longAnswer.data(), static_cast<int>(w.longAnswer.size()));
    run.latencies.push_back(measureLatency(handles[0], w.longShape, w.longCommand, w.longRounds));
    rackSimSetFixedAnswer(rig.device, 1, kShortAnswer.data(), static_cast<int>(kShortAnswer.size()));
}

// Short exchanges on 1 to 64 threads, each on a reader of its own.
void measureShortScaling(Run& run, const std::vector<SCARDHANDLE>& handles, const Workload& w, const Progress& step)
{
    for (int n : w.threadCounts) {
        step("short exchanges, " + std::to_string(n) + " threads");
        run.shortRuns.push_back(measureThroughput(handles, w.shortShape, kShortCommand, n, w.window, w.warm));
    }
}

// Long exchanges on 1 to 64 threads, then on 16 and 64 with the log
// redacted; every slot answers long meanwhile.
void measureLongScaling(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                        const Progress& step)
{
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
}

}  // namespace bench
