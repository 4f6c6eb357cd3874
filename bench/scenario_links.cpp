// The fast link beside the driver's settings: one rack of 64 slots on the
// driver's default latency timer, on a driver tuned to 2 ms, and on the
// fast link; one exchange at a time and short exchanges on 16 and 64 slots.
#include "bench/scenarios.h"

namespace bench {

using report_text::fmt;

double LinkSetting::deviceRate(const bus_model::Shape& shape, int threads) const
{
    return shape.cycleRate(threads, timerMs(), fastLinkTimerMs > 0 ? 0 : bus_model::kReceivePollMs);
}

namespace {

LinkMeasurement measureLink(const LinkSetting& setting, const Workload& w, const Progress& progress)
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

}  // namespace

std::vector<LinkMeasurement> compareLinks(const Workload& w, const Progress& progress)
{
    const std::vector<LinkSetting> settings{
        {"driver default (16 ms)", bus_model::kDefaultTimerMs, 0},
        {fmt("driver tuned (%g ms)", kTunedTimerMs), kTunedTimerMs, 0},
        {fmt("fast link (%d ms)", kFastLinkTimerMs), bus_model::kDefaultTimerMs, kFastLinkTimerMs},
    };
    std::vector<LinkMeasurement> measured;
    for (const LinkSetting& setting : settings) measured.push_back(measureLink(setting, w, progress));
    return measured;
}

}  // namespace bench
