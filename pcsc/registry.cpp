// Start-up: the banner, the discovery thread that searches the device list
// once, and the registry of racks that every exported call works over.
#include "pcsc/registry.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <vector>

#include "diag/trace_log.h"
#include "platform/global_order.h"
#include "pcsc/registry_testing.h"
#include "platform/clock.h"
#include "platform/thread.h"
#include "pcsc/lookups.h"
#include "pcsc/rack_rescan.h"
#include "reader/reader.h"

// Constructed in this order: racks, vendor name, card handles, log path.
CONSTRUCTED_BEFORE_STARTUP(201) GrowingList<Rack*> g_racks;
CONSTRUCTED_BEFORE_STARTUP(202) const std::string g_vendorName = "Quorvane Ltd.";

namespace {

const char kRackDescription[] = "Smart Card Rack";

// Discovery threads still running; the stop path waits for them.
std::atomic<int> g_discoveriesRunning{0};

void runDiscoveryThread()
{
    discoveryThread(nullptr);
    g_discoveriesRunning.fetch_sub(1, std::memory_order_acq_rel);
}

}  // namespace

extern "C" void WINAPI KickOff(void)
{
    logWrite("QuorvaneTesselRack driver: 1.2.3\r\n");
    g_discoveriesRunning.fetch_add(1, std::memory_order_acq_rel);
    if (!platform::startDetachedThread(runDiscoveryThread)) g_discoveriesRunning.fetch_sub(1);
    platform::pauseMs(1000);
}

extern "C" void WINAPI CloseConnections(void)
{
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) g_racks[i]->close();
}

unsigned long discoveryThread(void*)
{
    std::srand(static_cast<unsigned>(static_cast<uint32_t>(std::time(nullptr))));
    discoverRacks();
    // From here on, racks that come back or are plugged in later are
    // picked up while the library runs.
    startRackRescan();
    return 0;
}

void discoverRacks()
{
    uint32_t count = 0;
    if (FT_ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY) != FT_OK) {
        logWrite("Failed to list number of devices.");
        return;
    }
    if (FT_CreateDeviceInfoList(&count) != FT_OK) {
        logWrite("Failed to create device info list.");
        return;
    }
    // No array for the records is as bad as no list: the same trace.
    auto* records = new (std::nothrow) FT_DEVICE_LIST_INFO_NODE[count > 0 ? count : 1];
    if (records == nullptr) {
        logWrite("Failed to get device info list.");
        return;
    }
    std::memset(records, 0, sizeof(FT_DEVICE_LIST_INFO_NODE) * (count > 0 ? count : 1));
    uint32_t listed = count;
    if (FT_GetDeviceInfoList(records, &listed) != FT_OK) {
        logWrite("Failed to get device info list.");
        delete[] records;
        return;
    }
    // The library may report fewer records than it counted first, never
    // more than the array holds.
    if (listed < count) count = listed;

    std::vector<Rack*> opened;
    for (uint32_t i = 0; i < count; ++i) {
        FT_DEVICE_LIST_INFO_NODE& record = records[i];
        record.Description[sizeof record.Description - 1] = '\0';
        record.SerialNumber[sizeof record.SerialNumber - 1] = '\0';
        if (std::strcmp(record.Description, kRackDescription) != 0) continue;
        logWrite(std::string("Found device with serial ") + record.SerialNumber + "\n");
        // A device that does not open is passed over; the next record is
        // still served.
        if (Rack* rack = openRack(record.SerialNumber)) opened.push_back(rack);
    }
    bringUpTogether(opened);
    if (g_racks.size() == 0) logWrite("No racks found!");
    delete[] records;
}

bool allRacksEnumerated()
{
    size_t count = g_racks.size();
    if (count == 0) return false;
    size_t done = 0;
    // A rack lost since, or given up, holds up no one.
    for (size_t i = 0; i < count; ++i)
        if (g_racks[i]->enumerated() || g_racks[i]->everLost()) ++done;
    return done == count;
}

void waitForDiscoveryThreads()
{
    while (g_discoveriesRunning.load(std::memory_order_acquire) != 0) platform::pauseMs(1);
}

namespace registry_testing {

void shutdownAllRacks()
{
    waitForDiscoveryThreads();
    stopRackRescan();
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) g_racks[i]->stopWorkers();
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) delete g_racks[i];
    g_racks.clear();
    forgetCardHandles();
}

}  // namespace registry_testing
