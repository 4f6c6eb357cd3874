// The socket side of slots given over to virtual cards (see
// rack_sim_vcard.h for what the host sees). Each such slot is an endpoint:
// a listening or connecting socket on 127.0.0.1, at most one card
// connection, and the card's work queued by the slot (VirtualCardPort).
// One bridge thread serves every endpoint: it waits in poll() without any
// lock, then does a pass under the registry's lock, in which every socket
// call is non-blocking, so that a card that stops reading or answering can
// never hold up the rack or the host.
//
// Call none of these with the registry's lock held.
#pragma once

#include <string>

#include "sim/rack_line.h"

namespace racksim {

// The longest answer a virtual card may give, as for the emulator's own
// fixed answers; the longest ATR is kMostAtrBytes.
constexpr size_t kLongestVirtualCardAnswer = 4096;
constexpr Nanos kDefaultVirtualCardTimeout = 30000 * kMillisecond;
constexpr Nanos kReconnectPause = 500 * kMillisecond;

// Returns the port, or -1 with the reason in `error`.
int attachVirtualCard(int device, int address, int port, bool connectToCard, std::string& error);
void detachVirtualCard(int device, int address);
// Lets every card go and joins the bridge thread: before the devices go
// (rackSimReset), and when the emulator is unloaded.
void detachAllVirtualCards();
void setVirtualCardTimeout(Nanos timeout);

}  // namespace racksim
