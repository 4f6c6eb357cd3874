// Bring-up: one rack at three sizes, and a farm of 16 racks brought up at
// once with what its first context lists and costs.
#include <chrono>
#include <thread>

#include "bench/measuring.h"
#include "bench/scenarios.h"
#include "sim/rack_sim.h"

namespace bench {

using namespace bus_model;
using report_text::fmt;

void measureBringUps(Run& run, Rig& rig, const Progress& step)
{
    for (int slots : {8, 240}) {
        step("bring-up of " + std::to_string(slots) + " slots");
        run.bringUps.push_back(startRack(rig, fmt("BENCH%03d", slots), slots, run.timerMs));
        stopRack();
    }
    step("bring-up of 64 slots (stays up for the exchanges)");
    run.bringUps.insert(run.bringUps.begin() + 1, startRack(rig, "BENCH064", 64, run.timerMs));
}

FarmFigures measureFarm(const Progress& progress)
{
    FarmFigures f;
    progress("farm: 16 racks of 240 slots");
    rackSimReset();
    restartLog();
    for (int r = 0; r < kFarmRacks; ++r) {
        const int device = rackSimAddDevice("Smart Card Rack", fmt("FARM%02d", r + 1).c_str());
        rackSimAddSlots(device, 1, kFarmSlots);
        for (int a = 1; a <= kFarmSlots; ++a) rackSimInsertCard(device, a, kAtr.data(), static_cast<int>(kAtr.size()));
        rackSimSetWireRealism(device, 1);
    }
    const Clock::time_point start = Clock::now();
    KickOff();
    SCARDCONTEXT context = 0;
    SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    f.contextMs = msSince(start);
    DWORD size = 0;
    SCardListReadersA(context, nullptr, nullptr, &size);
    std::string names(size, '\0');
    if (size > 0) SCardListReadersA(context, nullptr, &names[0], &size);
    std::vector<std::string> listed;
    for (size_t at = 0; at < names.size() && names[at] != '\0'; at = names.find('\0', at) + 1)
        listed.push_back(names.c_str() + at);
    f.listed = listed.size();
    const double statusReply = frameBytes(kAtr.size());
    f.rackWireMs = wireMs(static_cast<double>(kMasterFrameBytes + kSlotMapBytes)) +
                   kFarmSlots * wireMs(kMasterFrameBytes + kAckBytes + statusReply) + wireMs(2.0 * kMasterFrameBytes);
    f.targetMs = kResetPauseMs + kSlotMapPauseMs + f.rackWireMs + 1000.0;

    progress("farm: status-change passes");
    std::vector<SCARD_READERSTATEA> records(listed.size());
    for (size_t i = 0; i < listed.size(); ++i) {
        records[i] = SCARD_READERSTATEA{};
        records[i].szReader = listed[i].c_str();
    }
    SCardGetStatusChangeA(context, 0, records.data(), static_cast<DWORD>(records.size()));
    for (auto& record : records) record.dwCurrentState = record.dwEventState & ~SCARD_STATE_CHANGED;
    for (int i = 0; i < 50; ++i) {
        const Clock::time_point t = Clock::now();
        SCardGetStatusChangeA(context, 0, records.data(), static_cast<DWORD>(records.size()));
        f.passes.push_back(msSince(t));
    }
    f.records = records.size();

    progress("farm: idle cost");
    const double cpuBefore = processCpuMs();
    const Clock::time_point idleStart = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    f.idleShare = (processCpuMs() - cpuBefore) / msSince(idleStart);
    SCardReleaseContext(context);
    stopRack();
    return f;
}

}  // namespace bench
