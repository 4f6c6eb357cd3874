// What the Windows test host's case files share: the report, the emulator's
// control surface and the library's API as loaded from their DLLs, and the
// racks the session sets up. A case file defines one function
// `int runXxxCases(Host& host)` (returning 0 when it could run its cases),
// declares it here and is called from the marked list in winscard_host.cpp.
#pragma once

#include <windows.h>
#include <winscard.h>

#include <string>
#include <thread>
#include <vector>

#include "sim/rack_sim.h"

// Prints "PASS: text" or "FAIL: text" and counts it.
bool check(bool ok, const char* format, ...);
std::string hex(const BYTE* bytes, size_t length);

// The emulator's control surface, typed by its own declarations.
struct Emulator {
    decltype(&rackSimReset) reset;
    decltype(&rackSimAddDevice) addDevice;
    decltype(&rackSimAddSlots) addSlots;
    decltype(&rackSimInsertCard) insertCard;
    decltype(&rackSimRemoveCard) removeCard;
    decltype(&rackSimSetEcho) setEcho;
    decltype(&rackSimIsOpen) isOpen;

    bool load(HMODULE module);
};

// The library's API, typed by the platform's declarations: a function whose
// calling convention or arguments differ from the published ones corrupts
// the call here.
struct Api {
    decltype(&SCardEstablishContext) establishContext;
    decltype(&SCardReleaseContext) releaseContext;
    decltype(&SCardIsValidContext) isValidContext;
    decltype(&SCardListReadersW) listReadersW;
    decltype(&SCardFreeMemory) freeMemory;
    decltype(&SCardGetStatusChangeA) getStatusChangeA;
    decltype(&SCardGetStatusChangeW) getStatusChangeW;
    decltype(&SCardConnectA) connectA;
    decltype(&SCardConnectW) connectW;
    decltype(&SCardReconnect) reconnect;
    decltype(&SCardDisconnect) disconnect;
    decltype(&SCardStatusA) statusA;
    decltype(&SCardStatusW) statusW;
    decltype(&SCardTransmit) transmit;
    decltype(&SCardGetAttrib) getAttrib;
    decltype(&SCardCancel) cancel;
    const SCARD_IO_REQUEST* t0Pci;
    const SCARD_IO_REQUEST* t1Pci;
    const SCARD_IO_REQUEST* rawPci;

    bool load(HMODULE module);
};

// Rack W1: R1 a T=0/T=1 card, R2 empty, R3 a T=1 card. Rack W2: R1 a T=0
// card, R2 empty. Device 0 is a serial port that is no rack.
enum : int { kOtherDevice = 0, kW1 = 1, kW2 = 2 };
extern const std::vector<BYTE> kAtrT0ThenT1;
extern const std::vector<BYTE> kAtrT1;
extern const std::vector<BYTE> kAtrT0;

struct Host {
    Emulator sim{};
    Api api{};
    HMODULE library = nullptr;
    SCARDCONTEXT context = 0;
};

// The status change's own bound on a wait for a card event; generous, so
// that a loaded machine does not fail a case.
constexpr DWORD kEventWaitMs = 30000;

// Runs `action` on another thread after `delayMs`, while the caller blocks
// in a call to the library.
class Later {
public:
    template <typename Action>
    Later(DWORD delayMs, Action action) : thread_([delayMs, action] {
          Sleep(delayMs);
          action();
      })
    {
    }
    ~Later() { thread_.join(); }

private:
    std::thread thread_;
};
