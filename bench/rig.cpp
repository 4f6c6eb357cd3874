#include "bench/rig.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "bench/measuring.h"
#include "pcsc/registry.h"
#include "pcsc/registry_testing.h"
#include "platform/test_seam.h"
#include "sim/rack_sim.h"

namespace bench {

using namespace bus_model;

namespace {

// KickOff to all racks enumerated as the device behaves: the slot map
// readable, the receive pass that sees it, the pause, then per slot the
// request and the pass that sees acknowledge and status reply (they take
// turns on the bus); the C2 reply likewise, on `closingTimerMs`, as the
// driver's timer is back by then. Timer 0: none.
double bringUpModelMs(int slots, size_t statusReply, double timerMs, double closingTimerMs)
{
    double mapSeen = nextPoll(wireMs(kMasterFrameBytes) + readableAtMs({kSlotMapBytes}, timerMs)[0]);
    double perSlot = polledCycleMs(kMasterFrameBytes, statusReply, false, timerMs, kReceivePollMs);
    double c2 = kReceivePollMs + nextPoll(wireMs(kMasterFrameBytes) + readableAtMs({kMasterFrameBytes}, closingTimerMs)[0]);
    return kResetPauseMs + mapSeen + kSlotMapPauseMs + slots * perSlot + c2;
}

}  // namespace

std::string readerName(const std::string& serial, int address) { return "Tessel " + serial + " R" + std::to_string(address); }

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
    // The library brings a rack up on a 2 ms latency timer whatever the
    // driver's, and puts the driver's back before the closing C2.
    const double bringUpTimerMs = std::min(timerMs, 2.0);
    b.deviceMs = bringUpModelMs(slots, statusReply, bringUpTimerMs, timerMs);
    b.pollOnlyMs = bringUpModelMs(slots, statusReply, 0, 0);
    b.perSlotWireMs = perSlotWire;
    b.perSlotPollMs = polledCycleMs(kMasterFrameBytes, statusReply, false, 0, kReceivePollMs);
    b.perSlotDeviceMs = polledCycleMs(kMasterFrameBytes, statusReply, false, bringUpTimerMs, kReceivePollMs);
    return b;
}

void stopRack()
{
    registry_testing::shutdownAllRacks();
    rackSimReset();
}

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

int connectedCount(const std::vector<SCARDHANDLE>& handles)
{
    return static_cast<int>(std::count_if(handles.begin(), handles.end(), [](SCARDHANDLE h) { return h != 0; }));
}

bool exchange(SCARDHANDLE handle, const std::vector<BYTE>& command, size_t expected)
{
    BYTE answer[2048];
    DWORD length = sizeof answer;
    LONG result = SCardTransmit(handle, &g_rgSCardT1Pci, command.data(), static_cast<DWORD>(command.size()), nullptr,
                                answer, &length);
    return result == SCARD_S_SUCCESS && length == expected;
}

void applyFastLinkSetting(int timerMs)
{
    if (timerMs > 0)
        setenv("TESSEL_FAST_LINK", std::to_string(timerMs).c_str(), 1);
    else
        unsetenv("TESSEL_FAST_LINK");
    platform::testing::rereadSettings();
}

}  // namespace bench
