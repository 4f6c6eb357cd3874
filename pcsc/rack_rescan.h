// Racks that come and go while the library runs: the bring-up of one rack,
// and a library thread that looks at the device list every couple of
// seconds for racks that came back or were plugged in later.
#pragma once

class Rack;

// Opens the rack with this serial number, resets it, starts its
// enumeration and adds it to g_racks. Null if the device did not open.
Rack* bringUpRack(const char* serialNumber);

// One look at the device list: a lost rack that is listed again is asked to
// come back (Rack::requestReopen), and a rack not yet known is brought up.
// A device that refused to open is not tried again until it has left the
// list and come back, so that a rack another process holds is not retried
// (and traced) on every pass.
void rescanRacks();

// The thread that calls rescanRacks every kRescanIntervalMs. Started once
// the first search is over; stopRackRescan ends it and waits for it (unload
// and the test seam). Safe to call more than once, and to start again
// after a stop.
constexpr unsigned kRescanIntervalMs = 2000;
void startRackRescan();
void stopRackRescan();
