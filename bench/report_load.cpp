// The report's part on the waiting calls and the thread scaling, in the
// whole report and on its own.
#include <sstream>

#include "bench/bench_report.h"
#include "bench/load_targets.h"

namespace bench {

using namespace load_targets;
using report_text::fmt;
using report_text::percent;
using report_text::verdict;

namespace {

double coreShare(double cpuMs, double wallMs) { return wallMs > 0 ? cpuMs / wallMs : 0; }

// The highest processor time per exchange over the short runs.
const Throughput* costliest(const Run& run)
{
    const Throughput* worst = nullptr;
    for (const Throughput& t : run.shortRuns)
        if (t.exchanges > 0 && (!worst || t.processCpuMs > worst->processCpuMs)) worst = &t;
    return worst;
}

}  // namespace

std::string targetsHeader(const std::vector<Run>& runs)
{
    std::string head = "| target | limit";
    for (const Run& run : runs) head += " | " + run.label();
    head += " | what bounds it |\n|---|---";
    for (size_t i = 0; i < runs.size(); ++i) head += "|---";
    return head + "|---|\n";
}

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

std::string loadOnlyReport(const std::vector<Run>& runs, const Workload& w, const RunStamp& stamp)
{
    std::ostringstream targets;
    loadTargetRows(targets, runs);
    return "# Waiting calls and thread scaling\n\nRun of " + stamp.when + ", " + stamp.host +
           (stamp.quick ? ", quick mode" : "") + ".\n\n" + targetsHeader(runs) + targets.str() + "\n" +
           loadReport(runs, w);
}

}  // namespace bench
