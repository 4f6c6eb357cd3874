// Start-up: the banner, the discovery thread that searches the device list
// once, and the registry of racks that every exported call works over.
//
// The start-up runs from the entry function, under the loader lock, so
// KickOff does nothing there but name the banner and start the discovery
// thread: no file, no time formatting, no further module, no pause. The
// thread, which runs once the loader lets go, raises the timer resolution,
// writes the banner (opening the log) and searches. SCardEstablishContext
// waits for what it finds, so hosts still see settled lists.
#include "pcsc/registry.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "platform/global_order.h"
#include "pcsc/registry_testing.h"
#include "platform/environment.h"
#include "platform/signal.h"
#include "platform/thread.h"
#include "platform/timer_resolution.h"
#include "pcsc/lookups.h"
#include "pcsc/rack_rescan.h"
#include "pcsc/rack_selection.h"
#include "reader/reader.h"

// Constructed in this order: racks, vendor name, card handles, log path.
CONSTRUCTED_BEFORE_STARTUP(201) GrowingList<Rack*> g_racks;
CONSTRUCTED_BEFORE_STARTUP(202) const std::string g_vendorName = "Quorvane Ltd.";

namespace {

const char kRackDescription[] = "Smart Card Rack";
const char kBanner[] = "QuorvaneTesselRack driver: 1.2.3\r\n";
// How long a wait for the discovery threads sleeps at most before it tests
// again; the end of each thread wakes it before that.
constexpr uint32_t kDiscoveryRecheckMs = 60000;
// FT_DEVICE_LIST_INFO_NODE::Flags: the device is open, here or in another
// process.
constexpr uint32_t kDeviceOpened = 1;

// Discovery threads still running; the stop path waits for them. Each
// end is told through the card events, on which every wait for the racks
// sleeps: whether they are settled depends on it (allRacksEnumerated).
std::atomic<int> g_discoveriesRunning{0};

void discoveryEnded()
{
    g_discoveriesRunning.fetch_sub(1, std::memory_order_acq_rel);
    cardEvents().notify();
}

void runDiscoveryThread()
{
    platform::raiseTimerResolution();
    startLoadLog();
    discoveryThread(nullptr);
    discoveryEnded();
}

}  // namespace

// Under the loader lock: memory and CreateThread only. If no thread can be
// made, the banner still opens the log at the first entry of the host.
extern "C" void WINAPI KickOff(void)
{
    setLoadBanner(kBanner);
    g_discoveriesRunning.fetch_add(1, std::memory_order_acq_rel);
    // The notify takes a lock only if a thread waits, and then only the
    // platform's own.
    if (!platform::startDetachedThread(runDiscoveryThread)) discoveryEnded();
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

namespace {

// Why a rack's device did not open, in the words a user needs. D2XX lets
// one process at a time open a device; the list marks a device open
// anywhere, and a device that another process holds fails to open with
// FT_DEVICE_NOT_OPENED.
std::string openFailure(const FT_DEVICE_LIST_INFO_NODE& record, int32_t status)
{
    const std::string serial = record.SerialNumber;
    // A host that calls KickOff again finds this process's own racks open.
    for (size_t i = 0, n = g_racks.size(); i < n; ++i)
        if (g_racks[i]->serialNumber() == serial) return "Rack " + serial + " is already open in this process.\n";
    if (record.Flags & kDeviceOpened)
        return "Rack " + serial + " is held by another process: its device is already open there. This process "
               "leaves it out.\n";
    if (status == FT_DEVICE_NOT_OPENED)
        return "Rack " + serial + " could not be opened (FT_DEVICE_NOT_OPENED): another process holds it, or the "
               "device is not free to open. This process leaves it out.\n";
    return "Rack " + serial + " could not be opened (D2XX status " + decimalText(status) +
           "). This process leaves it out.\n";
}

}  // namespace

void discoverRacks()
{
    takeRackSelection();
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
        if (!rackSelected(record.SerialNumber)) {
            logWrite(std::string("Rack ") + record.SerialNumber + " left out: not in TESSEL_RACKS\n");
            continue;
        }
        // A device that does not open is passed over, with the reason when
        // the open itself failed; the next record is still served.
        int32_t failure = 0;
        if (Rack* rack = openRack(record.SerialNumber, &failure))
            opened.push_back(rack);
        else if (failure != 0)
            logWrite(openFailure(record, failure));
    }
    bringUpTogether(opened);
    if (g_racks.size() == 0) logWrite("No racks found!");
    delete[] records;
}

// While a search runs, more racks may still come: not settled yet.
bool allRacksEnumerated()
{
    if (g_discoveriesRunning.load(std::memory_order_acquire) != 0) return false;
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
    // A discovery ends after one search, however long the racks take.
    const auto noneRunning = [] { return g_discoveriesRunning.load(std::memory_order_acquire) == 0; };
    while (!cardEvents().waitFor(noneRunning, platform::Signal::deadlineIn(kDiscoveryRecheckMs))) {
    }
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
