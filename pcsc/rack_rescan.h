// Racks that come and go while the library runs: the bring-up of one rack,
// and a library thread that looks at the device list every couple of
// seconds for racks that came back or were plugged in later.
#pragma once

class Rack;

#include <cstdint>
#include <vector>

// Opens the rack with this serial number and starts its workers; null if
// the device did not open. `failure`, if given, gets the D2XX status of an
// open that failed (0 when the device opened but its link did not start).
Rack* openRack(const char* serialNumber, int32_t* failure = nullptr);
// Brings up racks opened together: every one is sent its reset, one reset
// pause serves them all, then each starts its enumeration, and they are
// added to g_racks. Their enumerations run side by side on their own
// threads, so racks found together come up in the time of one.
void bringUpTogether(const std::vector<Rack*>& racks);
// openRack and bringUpTogether for one rack. Null if it did not open.
Rack* bringUpRack(const char* serialNumber);

// One look at the device list: a rack whose bring-up overran its limit is
// given up (Rack::giveUpBringUp), a lost rack that is listed again is asked to
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
