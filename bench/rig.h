// One emulated rack with a card in every slot, its line paced like the wire,
// and the library started on it: the card and command every scenario uses,
// the rack's bring-up measured beside the bus model, its readers connected
// and one exchange on a reader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/bus_model.h"
#include "pcsc/winscard_api.h"

namespace bench {

inline const std::vector<uint8_t> kAtr{0x3B, 0x80, 0x01};  // offers T=1
inline const std::vector<BYTE> kShortCommand{0x00, 0xB0, 0x00, 0x00, 0x02};
inline const std::vector<uint8_t> kShortAnswer{0x90, 0x00};

std::string readerName(const std::string& serial, int address);

struct BringUp {
    int slots = 0;
    double enumeratedMs = -1;  // KickOff to all racks enumerated
    double contextMs = -1;     // KickOff to the return of SCardEstablishContext
    double resetMs = -1, enumerateMs = -1, firstStatusMs = -1, lastStatusMs = -1, collectedMs = -1;
    // Bounds for the same frames.
    double wireMsTotal = 0;
    double fixedPausesMs = bus_model::kResetPauseMs + bus_model::kSlotMapPauseMs;
    double criticalPathMs = 0;  // pauses on the path here plus wire
    double deviceMs = 0;        // with latency timer and polls
    double pollOnlyMs = 0;      // the same without the latency timer
    double perSlotWireMs = 0;   // one status exchange: wire alone
    double perSlotPollMs = 0;   //   with the receive poll
    double perSlotDeviceMs = 0; //   with the poll and the latency timer
};

struct Rig {
    int device = -1;
    std::string serial;
    int slots = 0;
    SCARDCONTEXT context = 0;
};

// Configures one rack of `slots` slots with cards, its driver's latency
// timer at `timerMs`, starts the library and measures the bring-up. The
// library stays up.
BringUp startRack(Rig& rig, const std::string& serial, int slots, double timerMs);

void stopRack();

// Connects to slots 1..count, all at once.
std::vector<SCARDHANDLE> connectAll(const Rig& rig, int count);

int connectedCount(const std::vector<SCARDHANDLE>& handles);

// One SCardTransmit; true when it succeeded with an answer of `expected`
// bytes.
bool exchange(SCARDHANDLE handle, const std::vector<BYTE>& command, size_t expected);

// The fast link (TESSEL_FAST_LINK) at `timerMs`, or off for 0. The setting
// is read when the library opens a device: set it before the bring-up, and
// read afresh.
void applyFastLinkSetting(int timerMs);

}  // namespace bench
