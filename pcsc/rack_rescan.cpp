// The search for racks while the library runs. Each pass makes one device
// list and looks only at the records that describe racks; a pass that finds
// nothing new opens nothing and traces nothing, so its cost is one list
// every kRescanIntervalMs.
#include "pcsc/rack_rescan.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/rack_selection.h"
#include "pcsc/registry.h"
#include "platform/clock.h"
#include "platform/d2xx.h"
#include "platform/signal.h"
#include "platform/thread.h"

namespace {

const char kRackDescription[] = "Smart Card Rack";

std::atomic<bool> g_rescanStop{false};
std::atomic<bool> g_rescanRunning{false};
platform::Signal& rescanWake()
{
    static platform::Signal* signal = new platform::Signal;
    return *signal;
}

// Only the rescan thread touches it.
std::set<std::string>& refusedSerials()
{
    static std::set<std::string>* serials = new std::set<std::string>;
    return *serials;
}

Rack* rackWithSerial(const char* serial)
{
    for (size_t i = 0, n = g_racks.size(); i < n; ++i)
        if (g_racks[i]->serialNumber() == serial) return g_racks[i];
    return nullptr;
}

// The serial numbers of every record that describes a rack, or false if
// the list could not be made.
bool listedRackSerials(std::vector<std::string>& serials)
{
    uint32_t count = 0;
    if (FT_CreateDeviceInfoList(&count) != FT_OK) return false;
    std::vector<FT_DEVICE_LIST_INFO_NODE> records(count > 0 ? count : 1);
    std::memset(records.data(), 0, sizeof(FT_DEVICE_LIST_INFO_NODE) * records.size());
    uint32_t listed = count;
    if (FT_GetDeviceInfoList(records.data(), &listed) != FT_OK) return false;
    if (listed < count) count = listed;
    for (uint32_t i = 0; i < count; ++i) {
        FT_DEVICE_LIST_INFO_NODE& record = records[i];
        record.Description[sizeof record.Description - 1] = '\0';
        record.SerialNumber[sizeof record.SerialNumber - 1] = '\0';
        if (std::strcmp(record.Description, kRackDescription) == 0) serials.emplace_back(record.SerialNumber);
    }
    return true;
}

void runRescanThread()
{
    while (!g_rescanStop.load(std::memory_order_acquire)) {
        const uint32_t seen = rescanWake().generation();
        if (g_rescanStop.load(std::memory_order_acquire)) break;
        rescanWake().wait(seen, kRescanIntervalMs);
        if (g_rescanStop.load(std::memory_order_acquire)) break;
        rescanRacks();
    }
    g_rescanRunning.store(false, std::memory_order_release);
    // The stop path sleeps on the same signal until the thread is done.
    rescanWake().notify();
}

}  // namespace

Rack* openRack(const char* serialNumber, int32_t* failure)
{
    Rack* rack = nullptr;
    try {
        rack = new Rack(serialNumber);
    } catch (const RackOpenError& error) {
        if (failure != nullptr) *failure = static_cast<int32_t>(error.status());
        return nullptr;  // the device did not open
    }
    if (!rack->connected()) {
        delete rack;
        return nullptr;
    }
    return rack;
}

void bringUpTogether(const std::vector<Rack*>& racks)
{
    if (racks.empty()) return;
    for (Rack* rack : racks) rack->sendReset();
    platform::pauseMs(Rack::kResetPauseMs);
    for (Rack* rack : racks) {
        rack->startEnumeration();
        g_racks.append(rack);
    }
}

Rack* bringUpRack(const char* serialNumber)
{
    Rack* rack = openRack(serialNumber);
    if (rack != nullptr) bringUpTogether({rack});
    return rack;
}

void rescanRacks()
{
    const uint32_t now = platform::tickCount();
    for (size_t i = 0, n = g_racks.size(); i < n; ++i)
        if (g_racks[i]->bringUpOverdue(now)) g_racks[i]->giveUpBringUp();

    std::vector<std::string> serials;
    if (!listedRackSerials(serials)) return;
    std::set<std::string>& refused = refusedSerials();
    // A refused device that has left the list may be tried once it is back.
    for (auto it = refused.begin(); it != refused.end();) {
        bool listed = false;
        for (const std::string& serial : serials) listed = listed || serial == *it;
        it = listed ? std::next(it) : refused.erase(it);
    }
    for (const std::string& serial : serials) {
        if (g_rescanStop.load(std::memory_order_acquire)) return;
        if (Rack* known = rackWithSerial(serial.c_str())) {
            if (known->lost()) known->requestReopen();
            continue;
        }
        if (refused.count(serial) != 0) continue;
        if (!rackSelected(serial.c_str())) continue;  // another process's, by TESSEL_RACKS
        logWrite("Found device with serial " + serial + "\n");
        if (bringUpRack(serial.c_str()) == nullptr) refused.insert(serial);
    }
}

void startRackRescan()
{
    if (g_rescanRunning.exchange(true, std::memory_order_acq_rel)) return;
    g_rescanStop.store(false, std::memory_order_release);
    if (!platform::startDetachedThread(runRescanThread)) g_rescanRunning.store(false, std::memory_order_release);
}

void stopRackRescan()
{
    g_rescanStop.store(true, std::memory_order_release);
    rescanWake().notify();
    // A pass that has begun runs to its end: the wait tests again after a
    // while, and the thread's end wakes it before that.
    const auto ended = [] { return !g_rescanRunning.load(std::memory_order_acquire); };
    while (!rescanWake().waitFor(ended, platform::Signal::deadlineIn(kRescanIntervalMs))) {
    }
    refusedSerials().clear();
}
