// Contexts and connections on the fast link, so that the wire and not the
// 5 ms poll is what a cold connect waits for: context pairs per second,
// pcsc-lite's ThreadSafeConnect pattern and cold connects.
#include <atomic>
#include <thread>

#include "bench/measuring.h"
#include "bench/scenarios.h"
#include "sim/rack_sim.h"

namespace bench {

using namespace bus_model;

namespace {

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

}  // namespace

ConnectionCosts measureConnectionCosts(const Workload& w, const Progress& progress)
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

}  // namespace bench
