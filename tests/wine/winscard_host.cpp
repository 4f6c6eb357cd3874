// A PC/SC client for Windows, 32-bit or 64-bit, that checks what only a
// Windows build of winscard.dll shows: loading by file, exports by name and
// ordinal, the published records, calling convention and names, pointer-
// sized handles, 16-bit wide strings, the real pauses, and the module that
// stays mapped after FreeLibrary; behaviour is the native suite's business.
// It loads the emulator (the stand-in FTD2XX.dll) and sets up the racks
// before winscard.dll, whose start-up searches the device list once. Prints
// PASS or FAIL per check and "N passed, M failed" last.
#include "tests/wine/host_cases.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <thread>

namespace {
int g_passed = 0;
int g_failed = 0;

template <typename Target>
bool resolve(HMODULE module, const char* name, Target& out)
{
    out = reinterpret_cast<Target>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    return out != nullptr;
}
}  // namespace

bool check(bool ok, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::printf("%s: %s\n", ok ? "PASS" : "FAIL", text);
    (ok ? g_passed : g_failed)++;
    return ok;
}

#define HOST_RESOLVE(name) &&resolve(module, #name, name)
bool Api::load(HMODULE module) { return true HOST_API_EXPORTS(HOST_RESOLVE); }
bool Emulator::load(HMODULE module) { return true HOST_EMULATOR_EXPORTS(HOST_RESOLVE); }

namespace {

std::wstring besideThisProgram(const wchar_t* file)
{
    wchar_t path[MAX_PATH];
    std::wstring folder(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return folder.substr(0, folder.find_last_of(L'\\') + 1) + file;
}

// 64-bit Windows has no stdcall decoration; the 32-bit build keeps the
// start-up functions' decorated names.
#ifdef _WIN64
const char *const kKickOff = "KickOff", *const kCloseConnections = "CloseConnections";
const char* const kOtherForms[] = {"_KickOff@0", "_CloseConnections@0", "SCardTransmit@28", "_SCardTransmit"};
#else
const char *const kKickOff = "_KickOff@0", *const kCloseConnections = "_CloseConnections@0";
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
    LONG result = host.api.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &host.context);
    check(result == SCARD_S_SUCCESS && host.api.SCardIsValidContext(host.context) == SCARD_S_SUCCESS,
          "SCardEstablishContext after the real bring-up (0x%08lx)", result);
    check(host.sim.rackSimIsOpen(kW1) == 1 && host.sim.rackSimIsOpen(kW2) == 1 &&
              host.sim.rackSimIsOpen(kOtherDevice) == 0,
          "both racks are open through FTD2XX.dll, the other device is left alone");
    // The raw record carries 4, the value of the open-source PC/SC headers.
    const SCARD_IO_REQUEST* records[] = {host.api.g_rgSCardT0Pci, host.api.g_rgSCardT1Pci, host.api.g_rgSCardRawPci};
    const DWORD protocols[] = {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1, 4};
    for (int i = 0; i < 3; ++i)
        check(records[i]->dwProtocol == protocols[i] && records[i]->cbPciLength == sizeof(SCARD_IO_REQUEST),
              "PCI record %d is {%lu, %u}", i, protocols[i], static_cast<unsigned>(sizeof(SCARD_IO_REQUEST)));

    // A multi-string of 16-bit characters in a block the library allocates
    // and the host hands back.
    const std::wstring expected(L"Tessel W1 R1\0Tessel W1 R2\0Tessel W1 R3\0Tessel W2 R1\0Tessel W2 R2\0", 66);
    LPWSTR names = nullptr;
    DWORD length = SCARD_AUTOALLOCATE;
    result = host.api.SCardListReadersW(host.context, nullptr, reinterpret_cast<LPWSTR>(&names), &length);
    check(result == SCARD_S_SUCCESS && names != nullptr && std::wstring(names, length) == expected,
          "SCardListReadersW with SCARD_AUTOALLOCATE: five wide names (0x%08lx, %lu characters)", result, length);
    if (names) check(host.api.SCardFreeMemory(host.context, names) == SCARD_S_SUCCESS, "SCardFreeMemory of it");
}

// Each result lands in its own record: the library steps through the
// array by the published record size.
void readerStateRecords(Host& host)
{
    SCARD_READERSTATEA states[3] = {};
    states[0].szReader = "Tessel W1 R1";
    states[1].szReader = "Tessel W1 R2";
    states[2].szReader = "Tessel W2 R1";
    LONG result = host.api.SCardGetStatusChangeA(host.context, 0, states, 3);
    // The high 16 bits carry each reader's count of card events.
    check(result == SCARD_S_SUCCESS &&
              (states[0].dwEventState & 0xFFFF) == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT) &&
              std::vector<BYTE>(states[0].rgbAtr, states[0].rgbAtr + states[0].cbAtr) == kAtrT0ThenT1 &&
              (states[1].dwEventState & 0xFFFF) == (SCARD_STATE_CHANGED | SCARD_STATE_EMPTY) && states[1].cbAtr == 0 &&
              std::vector<BYTE>(states[2].rgbAtr, states[2].rgbAtr + states[2].cbAtr) == kAtrT0,
          "SCardGetStatusChangeA fills three records (0x%08lx; 0x%lx, 0x%lx, %lu ATR bytes)", result,
          states[0].dwEventState, states[1].dwEventState, states[2].cbAtr);
}

void wideConnectAndAttributeBlock(Host& host)
{
    const Api& api = host.api;
    SCARDHANDLE card = 0;
    DWORD active = 0;
    LONG result = api.SCardConnectW(host.context, L"Tessel W1 R3", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active);
    check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T1, "SCardConnectW to a T=1 card (0x%08lx)", result);
    // The new block comes back through a pointer-sized out value.
    BYTE* atr = nullptr;
    DWORD atrLength = SCARD_AUTOALLOCATE;
    result = api.SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, reinterpret_cast<BYTE*>(&atr), &atrLength);
    check(result == SCARD_S_SUCCESS && atr != nullptr && std::vector<BYTE>(atr, atr + atrLength) == kAtrT1,
          "SCardGetAttrib with SCARD_AUTOALLOCATE: the ATR in a new block");
    if (atr) api.SCardFreeMemory(host.context, atr);
    check(api.SCardDisconnect(card, SCARD_RESET_CARD) == SCARD_S_SUCCESS, "SCardDisconnect, resetting the card");
}

// Handles and contexts are pointer-sized; the library's handles fit in 32
// bits and come out widened. A host value with bits above those is refused
// by every call that takes a card handle, never cut down to a valid one.
void handleWidth(Host& host)
{
    const Api& api = host.api;
    SCARDHANDLE card = 0;
    DWORD active = 0, length = 0;
    LONG result = api.SCardConnectA(host.context, "Tessel W1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &card, &active);
    const unsigned long long value = card;
    check(result == SCARD_S_SUCCESS && card != 0 && (value >> 32) == 0,
          "SCardConnectA hands out a 32-bit handle, widened (0x%llx)", value);
    const BYTE command[] = {0x00, 0xA4, 0x04, 0x00, 0x00};
    BYTE answer[64];
#ifdef _WIN64
    const SCARDHANDLE alien = card | (SCARDHANDLE(1) << 32);
    DWORD state = 0;
    length = sizeof answer;
    const LONG refusals[] = {
        api.SCardTransmit(alien, api.g_rgSCardT0Pci, command, sizeof command, nullptr, answer, &length),
        api.SCardStatusA(alien, nullptr, nullptr, &state, &active, nullptr, nullptr),
        (length = sizeof answer, api.SCardGetAttrib(alien, SCARD_ATTR_ATR_STRING, answer, &length)),
        api.SCardReconnect(alien, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, SCARD_RESET_CARD, &active),
        api.SCardDisconnect(alien, SCARD_RESET_CARD),
    };
    const char* calls[] = {"SCardTransmit", "SCardStatusA", "SCardGetAttrib", "SCardReconnect", "SCardDisconnect"};
    for (int i = 0; i < 5; ++i)
        check(refusals[i] == SCARD_E_INVALID_HANDLE,
              "%s refuses the handle 0x%llx (0x%08lx)", calls[i], static_cast<unsigned long long>(alien), refusals[i]);
    // A context value above 32 bits is no context of ours either.
    const SCARDCONTEXT wideContext = host.context | (SCARDCONTEXT(1) << 32);
    check(api.SCardIsValidContext(wideContext) == SCARD_E_INVALID_HANDLE,
          "a context value above 32 bits is refused");
#endif
    length = sizeof answer;
    result = api.SCardTransmit(card, api.g_rgSCardT0Pci, command, sizeof command, nullptr, answer, &length);
    check(result == SCARD_S_SUCCESS && length == 2 && answer[0] == 0x90,
          "SCardTransmit through g_rgSCardT0Pci on the handle as handed out (0x%08lx)", result);
    check(api.SCardDisconnect(card, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS, "SCardDisconnect of it");
}

// The module pins itself: FreeLibrary leaves it mapped and its rack
// threads serving; a host thread waits with the library's real polls while
// another one puts a card in. The script checks the log once the process
// has ended.
void staysMappedAfterFreeLibrary(Host& host)
{
    check(host.api.SCardReleaseContext(host.context) == SCARD_S_SUCCESS, "SCardReleaseContext");
    check(FreeLibrary(host.library) != 0, "FreeLibrary(winscard.dll) returns");
    if (!check(GetModuleHandleW(L"winscard.dll") == host.library, "winscard.dll stays mapped after FreeLibrary"))
        return;
    // A live context of its own: the host's was released above.
    SCARDCONTEXT context = 0;
    host.api.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    SCARD_READERSTATEW arrival = {};
    arrival.szReader = L"Tessel W2 R2";
    arrival.dwCurrentState = SCARD_STATE_EMPTY;
    std::thread insert([&host] {
        Sleep(300);
        host.sim.rackSimInsertCard(kW2, 2, kAtrT0.data(), static_cast<int>(kAtrT0.size()));
    });
    // Generous, so that a loaded machine fails nothing.
    LONG result = host.api.SCardGetStatusChangeW(context, 30000, &arrival, 1);
    insert.join();
    check(result == SCARD_S_SUCCESS && (arrival.dwEventState & 0xFFFF) == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT),
          "after FreeLibrary the rack threads still follow card events (0x%08lx)", result);
}

const struct {
    const char* title;
    void (*run)(Host&);
} kCases[] = {
    {"exports by name and by ordinal", exportsByNameAndOrdinal},
    {"context, PCI records and a wide list", contextAndRecords},
    {"reader state records", readerStateRecords},
    {"a wide connect and an attribute block", wideConnectAndAttributeBlock},
    {"handle width", handleWidth},
};

// ---- Case files beyond this one ------------------------------------------------
// Each further case file declares its `int runXxxCases(Host&)` in
// host_cases.h, is listed here and adds its source to HOST_CASE_SOURCES in
// CMakeLists.txt. They run after the cases above, before the unload.
int (*const kMoreCaseFiles[])(Host&) = {
    runPnpCancelCases,
};

// ---- Set-up --------------------------------------------------------------------

bool loadModules(Host& host)
{
    HMODULE emulator = LoadLibraryW(besideThisProgram(L"FTD2XX.dll").c_str());
    if (!check(emulator != nullptr && host.sim.load(emulator), "the rack emulator loads as FTD2XX.dll")) return false;
    Emulator& sim = host.sim;
    sim.rackSimReset();
    sim.rackSimAddDevice("USB Serial Port", "FT000001");
    sim.rackSimAddDevice("Smart Card Rack", "W1");
    sim.rackSimAddDevice("Smart Card Rack", "W2");
    sim.rackSimAddSlots(kW1, 1, 3);
    sim.rackSimInsertCard(kW1, 1, kAtrT0ThenT1.data(), static_cast<int>(kAtrT0ThenT1.size()));
    sim.rackSimInsertCard(kW1, 3, kAtrT1.data(), static_cast<int>(kAtrT1.size()));
    sim.rackSimAddSlots(kW2, 1, 2);
    sim.rackSimInsertCard(kW2, 1, kAtrT0.data(), static_cast<int>(kAtrT0.size()));

    // By file, from the program's folder: the module must be that file,
    // not a built-in winscard.
    const std::wstring path = besideThisProgram(L"winscard.dll");
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
