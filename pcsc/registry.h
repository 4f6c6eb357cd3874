// The process-wide registry of racks, the start-up that fills it and the
// shut-down that closes the links.
#pragma once

#include <string>
#include <vector>

#include "link/growing_list.h"
#include "link/rack.h"
#include "pcsc/winscard_api.h"

// Every rack found, in discovery order. It only grows; walkers take no
// lock (see GrowingList).
extern GrowingList<Rack*> g_racks;

// The vendor name served by SCardGetAttrib.
extern const std::string g_vendorName;

// The body of the discovery thread: seeds rand (on Windows only its own
// thread's generator), searches once, returns 0.
unsigned long discoveryThread(void* ignored);
void discoverRacks();
// True once no search runs and every rack found has been enumerated
// (false with no racks).
bool allRacksEnumerated();
// Whether this process takes the rack with this serial number: every rack,
// or those TESSEL_RACKS named at the search made at load.
bool rackSelected(const char* serial);

// TESSEL_RACKS: serial numbers separated by commas, blanks around them
// allowed, each 1 to 15 printable characters; for example "TR0001,TR0003".
// A process takes only the racks named. False for anything else (an empty
// item, a blank inside a serial).
bool parseRackSelection(const std::string& text, std::vector<std::string>& serials);

// Waits until no discovery thread runs (unload and the test seam).
void waitForDiscoveryThreads();
