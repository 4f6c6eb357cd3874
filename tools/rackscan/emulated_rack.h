// The emulated rack that rackscan brings along on platforms where the rack
// emulator stands in for the D2XX library: set up before the PC/SC library
// is loaded, since the library searches the device list once, at load.
#pragma once

#include "tools/rackscan/options.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace rackscan {

// The serial number of emulated rack `rack` (from 0): "TR0001", ...
std::string emulatedSerial(int rack);

// The ATR of an emulated card when no --atr is given: T=0 and T=1 offered,
// historical bytes "TesselRack", with its check byte.
std::vector<uint8_t> defaultEmulatedAtr();

// Adds the racks, their slots and cards to the emulator.
void setUpEmulatedRacks(const EmulatorSetup& setup);

// Card events played on the emulated rack from a thread of their own, so
// that a watching host sees them arrive. The destructor stops the thread,
// cutting short any pause, and waits for it.
class EmulatedCardEvents {
public:
    explicit EmulatedCardEvents(const EmulatorSetup& setup) : setup_(setup) {}
    ~EmulatedCardEvents() { stop(); }

    // After `delayMs`, a card goes into the first empty slot of the first
    // rack; if `thenRemoveAfterMs` is not negative, it comes out again that
    // much later. With no empty slot the roles swap: the card of the last
    // slot comes out, and goes back in. Returns the slot used.
    int start(int delayMs, int thenRemoveAfterMs);
    void stop();

private:
    bool pause(int milliseconds);  // false when stopped meanwhile

    EmulatorSetup setup_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
};

}  // namespace rackscan
