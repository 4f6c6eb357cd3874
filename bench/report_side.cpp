// The report's parts on the fast link, on contexts and connections and on
// the farm, and the titles they carry when they make a report on their own.
#include <sstream>

#include "bench/bench_report.h"
#include "bench/measuring.h"

namespace bench {

using namespace bus_model;
using report_text::fmt;
using report_text::verdict;

namespace {

// "# title", then the line that says when and on what the figures were taken.
std::string titled(const std::string& title, const RunStamp& stamp, bool sayQuick)
{
    return "# " + title + "\n\nRun of " + stamp.when + ", " + stamp.host +
           (sayQuick && stamp.quick ? ", quick mode" : "") + ".\n\n";
}

}  // namespace

std::string linksOnlyTitle(const RunStamp& stamp) { return titled("The fast link beside the driver's settings", stamp, true); }

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

std::string connectionsOnlyReport(const ConnectionCosts& c, const RunStamp& stamp)
{
    return titled("Contexts and connections", stamp, true) + connectionReport(c);
}

// The farm takes no quick mode: its title leaves it out.
std::string farmOnlyReport(const FarmFigures& f, const RunStamp& stamp)
{
    const double medianMs = percentile(f.passes, 0.5), p95Ms = percentile(f.passes, 0.95);
    std::ostringstream r;
    r << titled("A farm of 16 racks", stamp, false);
    r << "| Measure | Figure | Target |\n|---|---|---|\n";
    r << fmt("| First context returned | %.0f ms | %.0f ms (pauses %.0f + wire of one rack %.0f + 1,000): %s |\n",
             f.contextMs, f.targetMs, kResetPauseMs + kSlotMapPauseMs, f.rackWireMs, verdict(f.contextMs <= f.targetMs));
    r << fmt("| Readers listed by it | %zu of %d | all: %s |\n", f.listed, kFarmRacks * kFarmSlots,
             verdict(f.listed == static_cast<size_t>(kFarmRacks * kFarmSlots)));
    r << fmt("| Status-change pass over %zu records (median, p95 of 50) | %.2f ms, %.2f ms | under 2 ms: %s |\n",
             f.records, medianMs, p95Ms, verdict(medianMs < 2.0));
    r << fmt("| Idle farm, library's own threads | %.1f%% of a core | under 2%%: %s |\n", f.idleShare * 100.0,
             verdict(f.idleShare < 0.02));
    return r.str();
}

}  // namespace bench
