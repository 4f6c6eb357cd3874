// Shared set-up of the fuzz targets: the emulator holds one rack, the
// library's clocks run fast and its trace log goes nowhere.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "diag/trace_log.h"
#include "platform/test_seam.h"
#include "reader/reader.h"
#include "sim/rack_sim.h"

namespace fuzz_support {

constexpr const char* kSerial = "FZ";
constexpr int kSlots = 4;

// Once per process: fast clocks (pauses that remain are short) and a log
// that costs no disk.
inline void setUpProcess()
{
    platform::testing::setTimeScale(1000);
    platform::testing::setLogFilePath("/dev/null");
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
    g_logPath.clear();
}

// A fresh emulator with one rack: a card with an ATR in slots 1 and 2, a
// mute card in slot 3, an empty slot 4. Returns the device index.
inline int freshRack()
{
    rackSimReset();
    int device = rackSimAddDevice("Smart Card Rack", kSerial);
    rackSimAddSlots(device, 1, kSlots);
    const unsigned char atrT1[] = {0x3B, 0x80, 0x01};
    const unsigned char atrT0[] = {0x3B, 0x80, 0x80, 0x01};
    rackSimInsertCard(device, 1, atrT1, sizeof atrT1);
    rackSimInsertCard(device, 2, atrT0, sizeof atrT0);
    rackSimMuteCard(device, 3);
    rackSimSetEcho(device, 1);
    return device;
}

}  // namespace fuzz_support
