// What the Windows test host's case files share: the report, the emulator's
// control surface and the library's API as loaded from their DLLs, and the
// racks the session sets up. A further case file defines one function
// `int runXxxCases(Host& host)` (0 when it could run its cases), declares it
// here and is listed in winscard_host.cpp.
#pragma once

#include <windows.h>
#include <winscard.h>

#include <vector>

#include "sim/rack_sim.h"

// Prints "PASS: text" or "FAIL: text" and counts it.
bool check(bool ok, const char* format, ...);

// Each export is typed by the platform's own declaration, so a calling
// convention or an argument that differs from the published one corrupts
// the call here; members and the names they are resolved by are the same.
#define HOST_API_EXPORTS(X)                                                                                       \
    X(SCardEstablishContext) X(SCardReleaseContext) X(SCardIsValidContext) X(SCardListReadersW) X(SCardFreeMemory) \
    X(SCardGetStatusChangeA) X(SCardConnectA) X(SCardConnectW) X(SCardReconnect) X(SCardDisconnect)                \
    X(SCardStatusA) X(SCardTransmit) X(SCardGetAttrib) X(SCardCancel) X(SCardGetStatusChangeW)                     \
    X(g_rgSCardT0Pci) X(g_rgSCardT1Pci) X(g_rgSCardRawPci)
#define HOST_EMULATOR_EXPORTS(X) \
    X(rackSimReset) X(rackSimAddDevice) X(rackSimAddSlots) X(rackSimInsertCard) X(rackSimRemoveCard) X(rackSimIsOpen)

#define HOST_DECLARE_EXPORT(name) decltype(&::name) name = nullptr;
struct Api {
    HOST_API_EXPORTS(HOST_DECLARE_EXPORT)
    bool load(HMODULE module);
};
struct Emulator {
    HOST_EMULATOR_EXPORTS(HOST_DECLARE_EXPORT)
    bool load(HMODULE module);
};

// Rack W1: R1 a T=0/T=1 card, R2 empty, R3 a T=1 card. Rack W2: R1 a T=0
// card, R2 empty. Device 0 is a serial port that is no rack.
enum : int { kOtherDevice = 0, kW1 = 1, kW2 = 2 };
const std::vector<BYTE> kAtrT0ThenT1 = {0x3B, 0x80, 0x80, 0x01};
const std::vector<BYTE> kAtrT1 = {0x3B, 0x80, 0x01};
const std::vector<BYTE> kAtrT0 = {0x3B, 0x80, 0x00};

struct Host {
    Emulator sim;
    Api api;
    HMODULE library = nullptr;
    SCARDCONTEXT context = 0;
};

int runPnpCancelCases(Host& host);
int runApiSurfaceCases(Host& host);
