// The library against the rack emulator with wire pacing on: how close its
// exchanges, its bring-up and its waits come to the limits that the serial
// link (115,200 baud 8N1, 11,520 bytes/s each way), the FTDI chip's latency
// timer and the library's own fixed pauses and 5 ms receive poll put on
// them. Everything runs in real time. Prints the tables, and writes
// report.md and exchanges.svg into the output folder. Asserts nothing.
//
//   pcsc_bench [--out DIR] [--quick] [--latency-timer MS]...
//              [--links-only | --load-only | --connections-only | --farm-only]
//
// The library leaves the chip's latency timer as the device driver has it:
// 16 ms unless the driver was tuned. Each --latency-timer (1 to 255 ms,
// default one run at 16) runs the whole benchmark once with the emulated
// driver set so, and the report sets the runs side by side. Last come three
// links side by side: the driver's default, a driver tuned to 2 ms and the
// fast link (--links-only runs just those), then contexts and connections
// (--connections-only). --load-only runs just the waiting calls and the
// scaling of short exchanges from 1 to 64 threads; --farm-only just the farm
// of 16 racks of 240 slots, into farm-report.md.
//
// This file is the runner: its options, the order in which the scenario
// families (scenario_*.cpp) run, and where the report (report_*.cpp) and the
// plot (exchanges_plot.cpp) go.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "bench/bench_report.h"
#include "bench/exchanges_plot.h"
#include "bench/measuring.h"
#include "bench/scenarios.h"

namespace {

using namespace bench;
using report_text::fmt;

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

// Only what the waiting calls and the thread scaling need: one rack of 64
// slots, its readers connected, short exchanges and the two waits.
void runLoadOnly(Run& run, const Workload& w, const Progress& progress)
{
    Clock::time_point runStart = Clock::now();
    auto step = [&](const std::string& what) { progress(run.label() + ": " + what); };
    Rig rig;
    step("bring-up of 64 slots");
    run.bringUps.push_back(startRack(rig, "BENCH064", 64, run.timerMs));
    step("connecting 64 readers");
    std::vector<SCARDHANDLE> handles = connectAll(rig, 64);
    run.connected = connectedCount(handles);
    measureShortScaling(run, handles, w, step);
    measureWaits(run, rig, handles, w, step);
    stopRack();
    run.seconds = msSince(runStart) / 1000.0;
}

// Everything with one setting of the driver's latency timer.
void runOne(Run& run, const Workload& w, const Progress& progress)
{
    Clock::time_point runStart = Clock::now();
    auto step = [&](const std::string& what) { progress(run.label() + ": " + what); };
    Rig rig;
    measureBringUps(run, rig, step);
    step("connecting 64 readers");
    std::vector<SCARDHANDLE> handles = connectAll(rig, 64);
    run.connected = connectedCount(handles);
    measureAtRest(run, w, step);
    measureOneAtATime(run, rig, handles, w, step);
    measureShortScaling(run, handles, w, step);
    measureLongScaling(run, rig, handles, w, step);
    measureWaits(run, rig, handles, w, step);
    measureWaitersBeside(run, rig, handles, w, step);
    stopRack();
    run.seconds = msSince(runStart) / 1000.0;
}

// Makes the output folder where it is missing.
bool makeFolder(const std::string& out)
{
    std::string mkdir = "mkdir -p '" + out + "'";
    return std::system(mkdir.c_str()) == 0;
}

}  // namespace

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
    if (settings.timersMs.empty()) settings.timersMs.push_back(bus_model::kDefaultTimerMs);

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

    useBenchLog("/tmp/tessel-bench-" + std::to_string(getpid()) + ".log");
    RunStamp stamp;
    stamp.host = hostLine();
    stamp.quick = settings.quick;
    Clock::time_point runStart = Clock::now();
    std::time_t now = std::time(nullptr);
    char when[64];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&now));
    stamp.when = when;

    auto progress = [&](const std::string& what) {
        std::fprintf(stderr, "[%6.1f s] %s\n", msSince(runStart) / 1000.0, what.c_str());
    };

    // Trace entries first, while nothing else of the library runs.
    progress("trace entry cost");
    const std::vector<TraceCost> traces = measureTraceCosts(settings.quick);

    if (settings.farmOnly) {
        const std::string text = farmOnlyReport(measureFarm(progress), stamp);
        removeBenchLog();
        progress("done");
        std::printf("%s", text.c_str());
        if (!makeFolder(settings.out)) return 1;
        std::ofstream(settings.out + "/farm-report.md") << text;
        std::fprintf(stderr, "wrote %s/farm-report.md\n", settings.out.c_str());
        return 0;
    }
    if (settings.connectionsOnly) {
        const ConnectionCosts costs = measureConnectionCosts(w, progress);
        removeBenchLog();
        progress("done");
        const std::string text = connectionsOnlyReport(costs, stamp);
        std::printf("%s", text.c_str());
        if (!makeFolder(settings.out)) return 1;
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
    removeBenchLog();
    progress("done");

    std::string text;
    if (settings.loadOnly) text = loadOnlyReport(runs, w, stamp);
    else
        text = (settings.linksOnly ? linksOnlyTitle(stamp)
                                   : busLimitReport(runs, w, traces, stamp, msSince(runStart) / 1000.0)) +
               linkComparisonReport(links) + connections;
    std::printf("%s", text.c_str());
    std::string svg = runs.empty() || settings.loadOnly ? std::string() : exchangesPlot(runs);

    if (!makeFolder(settings.out)) {
        std::fprintf(stderr, "cannot make %s\n", settings.out.c_str());
        return 1;
    }
    std::ofstream(settings.out + "/report.md") << text;
    if (!svg.empty()) std::ofstream(settings.out + "/exchanges.svg") << svg;
    std::fprintf(stderr, "wrote %s/report.md%s\n", settings.out.c_str(),
                 svg.empty() ? "" : (" and " + settings.out + "/exchanges.svg").c_str());
    return 0;
}
