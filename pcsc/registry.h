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
// Waits until no discovery thread runs (unload and the test seam).
void waitForDiscoveryThreads();
