// A PC/SC client for Windows, built 32-bit and 64-bit, that checks what only
// a Windows build of winscard.dll can show: loading by file and each export
// by name and by ordinal, the published records and calling convention, the
// undecorated and decorated names, pointer-sized handles, wide strings of
// 16-bit characters, the real pauses, and that the module stays mapped
// after FreeLibrary. What the library does with a call is the native
// suite's business.
//
// It loads the emulator (the stand-in FTD2XX.dll) first, sets up the racks,
// then loads winscard.dll, whose start-up searches the device list once.
// Prints PASS or FAIL for every check and "N passed, M failed" last; the
// exit code is 0 only if nothing failed.
#include "tests/wine/host_cases.h"

#include <cstdio>
#include <cstring>

extern int g_passed;
extern int g_failed;

namespace {

std::wstring programFolder()
{
    wchar_t path[MAX_PATH];
    DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length);
    size_t slash = folder.find_last_of(L"\\/");
    return slash == std::wstring::npos ? L"." : folder.substr(0, slash);
}

// 64-bit Windows has no stdcall decoration; the 32-bit build keeps the
// start-up functions' decorated names.
#ifdef _WIN64
const char* const kKickOff = "KickOff";
const char* const kCloseConnections = "CloseConnections";
const char* const kOtherForms[] = {"_KickOff@0", "_CloseConnections@0", "SCardTransmit@28", "_SCardTransmit"};
#else
const char* const kKickOff = "_KickOff@0";
const char* const kCloseConnections = "_CloseConnections@0";
const char* const kOtherForms[] = {"KickOff", "CloseConnections", "SCardTransmit@28", "_SCardTransmit@28"};
#endif

const struct {
    const char* name;
    WORD ordinal;
} kExports[] = {
    {"SCardGetStatusChangeW", 1}, {kCloseConnections, 2},       {kKickOff, 3},
    {"SCardBeginTransaction", 4}, {"SCardCancel", 5},           {"SCardConnectA", 6},
    {"SCardConnectW", 7},         {"SCardControl", 8},          {"SCardDisconnect", 9},
    {"SCardEndTransaction", 10},  {"SCardEstablishContext", 11}, {"SCardFreeMemory", 12},
    {"SCardGetAttrib", 13},       {"SCardGetStatusChangeA", 14}, {"SCardIsValidContext", 15},
    {"SCardListReadersA", 16},    {"SCardListReadersW", 17},     {"SCardReconnect", 18},
    {"SCardReleaseContext", 19},  {"SCardReset", 20},            {"SCardStatusA", 21},
    {"SCardStatusW", 22},         {"SCardTransmit", 23},         {"g_rgSCardRawPci", 24},
    {"g_rgSCardT0Pci", 25},       {"g_rgSCardT1Pci", 26},
};

// ---- Cases -----------------------------------------------------------------

void exportsByNameAndOrdinal(Host& host)
{
    for (const auto& entry : kExports) {
        FARPROC byName = GetProcAddress(host.library, entry.name);
        FARPROC byOrdinal = GetProcAddress(host.library, MAKEINTRESOURCEA(entry.ordinal));
        check(byName != nullptr && byName == byOrdinal, "%s is exported at ordinal %u", entry.name, entry.ordinal);
    }
    for (const char* name : kOtherForms)
        check(GetProcAddress(host.library, name) == nullptr, "nothing is exported as %s", name);
}

void contextAndRecords(Host& host)
{
    LONG result = host.api.establishContext(SCARD_SCOPE_USER, nullptr, nullptr, &host.context);
    check(result == SCARD_S_SUCCESS, "SCardEstablishContext after the real bring-up (0x%08lx)", result);
    check(host.api.isValidContext(host.context) == SCARD_S_SUCCESS, "SCardIsValidContext: every rack is up");
    check(host.sim.isOpen(kW1) == 1 && host.sim.isOpen(kW2) == 1 && host.sim.isOpen(kOtherDevice) == 0,
          "both racks are open through FTD2XX.dll, the other device is left alone");
    const SCARD_IO_REQUEST* records[] = {host.api.t0Pci, host.api.t1Pci, host.api.rawPci};
    // The raw record carries 4, the value of the open-source PC/SC headers.
    const DWORD protocols[] = {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1, 4};
    for (int i = 0; i < 3; ++i)
        check(records[i]->dwProtocol == protocols[i] && records[i]->cbPciLength == sizeof(SCARD_IO_REQUEST),
              "PCI record %d is {%lu, %u}", i, protocols[i], static_cast<unsigned>(sizeof(SCARD_IO_REQUEST)));
}

// A multi-string of 16-bit characters in a block the library allocates and
// the host hands back through SCardFreeMemory.
void wideListInNewBlock(Host& host)
{
    const std::wstring expected(L"Tessel W1 R1\0Tessel W1 R2\0Tessel W1 R3\0Tessel W2 R1\0Tessel W2 R2\0", 66);
    LPWSTR names = nullptr;
    DWORD length = SCARD_AUTOALLOCATE;
    LONG result = host.api.listReadersW(host.context, nullptr, reinterpret_cast<LPWSTR>(&names), &length);
    check(result == SCARD_S_SUCCESS && names != nullptr && std::wstring(names, length) == expected,
          "SCardListReadersW with SCARD_AUTOALLOCATE: five wide names (0x%08lx, %lu characters)", result, length);
    if (names) check(host.api.freeMemory(host.context, names) == SCARD_S_SUCCESS, "SCardFreeMemory takes it back");
}

// Several records in one call: each result lands in its own record, so the
// library walks the array with the published record size.
void readerStateRecords(Host& host)
{
    SCARD_READERSTATEA states[3] = {};
    states[0].szReader = "Tessel W1 R1";
    states[1].szReader = "Tessel W1 R2";
    states[2].szReader = "Tessel W2 R1";
    LONG result = host.api.getStatusChangeA(host.context, 0, states, 3);
    check(result == SCARD_S_SUCCESS && states[0].dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT) &&
              std::vector<BYTE>(states[0].rgbAtr, states[0].rgbAtr + states[0].cbAtr) == kAtrT0ThenT1 &&
              states[1].dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_EMPTY) && states[1].cbAtr == 0 &&
              std::vector<BYTE>(states[2].rgbAtr, states[2].rgbAtr + states[2].cbAtr) == kAtrT0,
          "SCardGetStatusChangeA fills three records (0x%08lx; 0x%lx %s; 0x%lx; %s)", result,
          states[0].dwEventState, hex(states[0].rgbAtr, states[0].cbAtr).c_str(), states[1].dwEventState,
          hex(states[2].rgbAtr, states[2].cbAtr).c_str());
}

// A host thread waits with the library's real polls while another thread
// puts a card in.
void cardEventWhileWaiting(Host& host)
{
    SCARD_READERSTATEW arrival = {};
    arrival.szReader = L"Tessel W1 R2";
    arrival.dwCurrentState = SCARD_STATE_EMPTY;
    LONG result;
    {
        Later insert(500, [&host] { host.sim.insertCard(kW1, 2, kAtrT1.data(), static_cast<int>(kAtrT1.size())); });
        result = host.api.getStatusChangeW(host.context, kEventWaitMs, &arrival, 1);
    }
    check(result == SCARD_S_SUCCESS && arrival.dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT),
          "SCardGetStatusChangeW sees a card inserted while it waits (0x%08lx, state 0x%lx)", result,
          arrival.dwEventState);
}

void connectTransmitStatus(Host& host)
{
    const Api& api = host.api;
    SCARDHANDLE card = 0;
    DWORD active = 0;
    LONG result = api.connectW(host.context, L"Tessel W1 R3", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active);
    check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T1, "SCardConnectW to a T=1 card (0x%08lx)", result);

    host.sim.setEcho(kW1, 3);
    const BYTE command[] = {0x00, 0x84, 0x00, 0x00, 0x08};
    BYTE answer[64];
    DWORD answerLength = sizeof answer;
    result = api.transmit(card, api.t1Pci, command, sizeof command, nullptr, answer, &answerLength);
    check(result == SCARD_S_SUCCESS && answerLength == sizeof command && std::memcmp(answer, command, 5) == 0,
          "SCardTransmit through g_rgSCardT1Pci: the echo (%s)", hex(answer, answerLength).c_str());

    LPWSTR name = nullptr;
    DWORD nameLength = SCARD_AUTOALLOCATE, state = 0, protocol = 0;
    result = api.statusW(card, reinterpret_cast<LPWSTR>(&name), &nameLength, &state, &protocol, nullptr, nullptr);
    check(result == SCARD_S_SUCCESS && name != nullptr && std::wstring(name) == L"Tessel W1 R3" &&
              protocol == SCARD_PROTOCOL_T1,
          "SCardStatusW with SCARD_AUTOALLOCATE: the wide name and T=1");
    if (name) api.freeMemory(host.context, name);

    // The attribute block comes back through a pointer-sized out value.
    BYTE* atr = nullptr;
    DWORD atrLength = SCARD_AUTOALLOCATE;
    result = api.getAttrib(card, SCARD_ATTR_ATR_STRING, reinterpret_cast<BYTE*>(&atr), &atrLength);
    check(result == SCARD_S_SUCCESS && atr != nullptr && std::vector<BYTE>(atr, atr + atrLength) == kAtrT1,
          "SCardGetAttrib with SCARD_AUTOALLOCATE: the ATR in a new block");
    if (atr) api.freeMemory(host.context, atr);
    check(api.disconnect(card, SCARD_RESET_CARD) == SCARD_S_SUCCESS, "SCardDisconnect, resetting the card");
}

// Handles and contexts are pointer-sized; the library's handles fit in 32
// bits and come out widened. A host value with bits above those is refused
// at every call that takes a card handle, never cut down to a valid one.
void handleWidth(Host& host)
{
    const Api& api = host.api;
    check(sizeof(SCARDHANDLE) == sizeof(void*) && sizeof(SCARDCONTEXT) == sizeof(void*),
          "SCARDHANDLE and SCARDCONTEXT are %u bytes", static_cast<unsigned>(sizeof(void*)));
    SCARDHANDLE card = 0;
    DWORD active = 0;
    LONG result = api.connectA(host.context, "Tessel W1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &card, &active);
    const unsigned long long value = card;
    check(result == SCARD_S_SUCCESS && card != 0 && (value >> 32) == 0,
          "SCardConnectA hands out a 32-bit handle, widened (0x%llx)", value);
    const BYTE command[] = {0x00, 0xA4, 0x04, 0x00, 0x00};
    BYTE answer[64];
    DWORD answerLength = sizeof answer;
#ifdef _WIN64
    const SCARDHANDLE alien = card | (SCARDHANDLE(1) << 32);
    result = api.transmit(alien, api.t0Pci, command, sizeof command, nullptr, answer, &answerLength);
    check(result == SCARD_E_INVALID_HANDLE, "SCardTransmit refuses 0x%llx (0x%08lx)",
          static_cast<unsigned long long>(alien), result);
    DWORD state = 0, protocol = 0;
    result = api.statusA(alien, nullptr, nullptr, &state, &protocol, nullptr, nullptr);
    check(result == SCARD_E_INVALID_HANDLE, "SCardStatusA refuses it (0x%08lx)", result);
    BYTE atr[36];
    DWORD atrLength = sizeof atr;
    result = api.getAttrib(alien, SCARD_ATTR_ATR_STRING, atr, &atrLength);
    check(result == SCARD_E_INVALID_HANDLE, "SCardGetAttrib refuses it (0x%08lx)", result);
    result = api.reconnect(alien, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, SCARD_RESET_CARD, &active);
    check(result == SCARD_E_READER_UNAVAILABLE, "SCardReconnect refuses it (0x%08lx)", result);
    result = api.disconnect(alien, SCARD_RESET_CARD);
    check(result == SCARD_E_READER_UNAVAILABLE, "SCardDisconnect refuses it (0x%08lx)", result);
    // Contexts hold nothing: any value is taken.
    const SCARDCONTEXT wideContext = host.context | (SCARDCONTEXT(1) << 32);
    check(api.isValidContext(wideContext) == SCARD_S_SUCCESS && api.cancel(wideContext) == SCARD_S_SUCCESS,
          "a context value above 32 bits is taken");
#endif
    answerLength = sizeof answer;
    result = api.transmit(card, api.t0Pci, command, sizeof command, nullptr, answer, &answerLength);
    check(result == SCARD_S_SUCCESS && answerLength == 2 && answer[0] == 0x90,
          "the handle as handed out still works (0x%08lx)", result);
    check(api.disconnect(card, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS, "SCardDisconnect of it");
}

// The module pins itself: FreeLibrary leaves it mapped and its rack
// threads serving. The script checks the log after the process has ended
// (the links are closed then).
void staysMappedAfterFreeLibrary(Host& host)
{
    check(host.api.releaseContext(host.context) == SCARD_S_SUCCESS, "SCardReleaseContext");
    check(FreeLibrary(host.library) != 0, "FreeLibrary(winscard.dll) returns");
    HMODULE still = GetModuleHandleW(L"winscard.dll");
    if (!check(still == host.library, "winscard.dll stays mapped after FreeLibrary")) return;

    SCARD_READERSTATEA arrival = {};
    arrival.szReader = "Tessel W2 R2";
    arrival.dwCurrentState = SCARD_STATE_EMPTY;
    LONG result;
    {
        Later insert(300, [&host] { host.sim.insertCard(kW2, 2, kAtrT0.data(), static_cast<int>(kAtrT0.size())); });
        result = host.api.getStatusChangeA(0, kEventWaitMs, &arrival, 1);
    }
    check(result == SCARD_S_SUCCESS && arrival.dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT),
          "after FreeLibrary the rack threads still follow card events (0x%08lx)", result);
}

const struct {
    const char* title;
    void (*run)(Host&);
} kCases[] = {
    {"exports by name and by ordinal", exportsByNameAndOrdinal},
    {"context and the PCI records", contextAndRecords},
    {"a wide list in a new block", wideListInNewBlock},
    {"reader state records", readerStateRecords},
    {"a card event while a host thread waits", cardEventWhileWaiting},
    {"connect, transmit, status and attribute", connectTransmitStatus},
    {"handle width", handleWidth},
};

// ---- Case files beyond this one ------------------------------------------------
// Each further case file declares its `int runXxxCases(Host&)` in
// host_cases.h, is listed here, and adds its source to HOST_CASE_SOURCES in
// CMakeLists.txt. They run after the cases above, before the unload.
int (*const kMoreCaseFiles[])(Host&) = {
    nullptr,  // keeps the list valid while it holds no file
};

// ---- Set-up --------------------------------------------------------------------

bool loadModules(Host& host)
{
    HMODULE emulator = LoadLibraryW((programFolder() + L"\\FTD2XX.dll").c_str());
    if (!check(emulator != nullptr && host.sim.load(emulator), "the rack emulator loads as FTD2XX.dll")) return false;
    host.sim.reset();
    host.sim.addDevice("USB Serial Port", "FT000001");
    host.sim.addDevice("Smart Card Rack", "W1");
    host.sim.addDevice("Smart Card Rack", "W2");
    host.sim.addSlots(kW1, 1, 3);
    host.sim.insertCard(kW1, 1, kAtrT0ThenT1.data(), static_cast<int>(kAtrT0ThenT1.size()));
    host.sim.insertCard(kW1, 3, kAtrT1.data(), static_cast<int>(kAtrT1.size()));
    host.sim.addSlots(kW2, 1, 2);
    host.sim.insertCard(kW2, 1, kAtrT0.data(), static_cast<int>(kAtrT0.size()));

    // By file, from the program's folder: the module must be ours, not a
    // built-in winscard.
    const std::wstring path = programFolder() + L"\\winscard.dll";
    host.library = LoadLibraryW(path.c_str());
    if (!check(host.library != nullptr, "winscard.dll loads from %ls (error %lu)", path.c_str(), GetLastError()))
        return false;
    wchar_t loaded[MAX_PATH];
    DWORD length = GetModuleFileNameW(host.library, loaded, MAX_PATH);
    check(_wcsicmp(std::wstring(loaded, length).c_str(), path.c_str()) == 0, "the module loaded is that file");
    return check(host.api.load(host.library), "every function and record resolves by name");
}

}  // namespace

int wmain()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::printf("== %u-bit host: two racks, five readers ==\n", static_cast<unsigned>(8 * sizeof(void*)));
    Host host;
    if (loadModules(host)) {
        for (const auto& entry : kCases) {
            std::printf("-- %s\n", entry.title);
            entry.run(host);
        }
        for (auto run : kMoreCaseFiles)
            if (run != nullptr && run(host) != 0) check(false, "a further case file could not run its cases");
        std::printf("-- unloading\n");
        staysMappedAfterFreeLibrary(host);
    }
    std::printf("%d passed, %d failed\n", g_passed, g_failed);
    return g_failed == 0 && g_passed > 0 ? 0 : 1;
}
