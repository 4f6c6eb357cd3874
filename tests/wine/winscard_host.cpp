// A PC/SC client for 32-bit Windows that drives winscard.dll end to end
// against the rack emulator (the stand-in FTD2XX.dll), both loaded from the
// folder of this program.
//
// The host is compiled against the platform's own <winscard.h>: every
// function it calls has the published type, and every record it passes has
// the published size, so a library that differs breaks here and not in a
// customer's application. It loads the emulator first, sets up the racks,
// and only then loads winscard.dll, whose start-up searches the device list
// once. All pauses and time-outs are the library's real ones.
//
//   winscard_host            the full session against two racks
//   winscard_host no-racks   a device list without racks
//
// Prints PASS or FAIL for every check and "N passed, M failed" last; the
// exit code is 0 only if nothing failed.
#include <windows.h>
#include <knownfolders.h>
#include <shlobj.h>
#include <winscard.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "sim/rack_sim.h"

int runPnpCancelCases(HMODULE winscard, const char* emptyReader, int device, int slot);

namespace {

// ---- Reporting -------------------------------------------------------------

int g_passed = 0;
int g_failed = 0;
const DWORD g_start = GetTickCount();

// Seconds since the host started, for reading a run's log; no check
// depends on it.
double elapsed() { return (GetTickCount() - g_start) / 1000.0; }

bool check(bool ok, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::printf("%s: %s [%.1f s]\n", ok ? "PASS" : "FAIL", text, elapsed());
    std::fflush(stdout);
    (ok ? g_passed : g_failed)++;
    return ok;
}

void info(const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::printf("INFO: %s [%.1f s]\n", text, elapsed());
    std::fflush(stdout);
}

std::string hex(const BYTE* bytes, size_t length)
{
    std::string text;
    char two[4];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        if (i) text += ' ';
        text += two;
    }
    return text;
}

// ---- Modules -------------------------------------------------------------------

std::wstring programFolder()
{
    wchar_t path[MAX_PATH];
    DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length);
    size_t slash = folder.find_last_of(L"\\/");
    return slash == std::wstring::npos ? L"." : folder.substr(0, slash);
}

std::string narrow(const std::wstring& text)
{
    std::string out;
    for (wchar_t c : text) out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

std::wstring widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

template <typename Function>
bool resolve(HMODULE module, const char* name, Function& out)
{
    out = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    return out != nullptr;
}

// The emulator's control surface, typed by its own declarations.
struct Emulator {
    decltype(&rackSimReset) reset;
    decltype(&rackSimAddDevice) addDevice;
    decltype(&rackSimAddSlots) addSlots;
    decltype(&rackSimInsertCard) insertCard;
    decltype(&rackSimRemoveCard) removeCard;
    decltype(&rackSimSetEcho) setEcho;
    decltype(&rackSimSetFixedAnswer) setFixedAnswer;
    decltype(&rackSimIsOpen) isOpen;
    decltype(&rackSimLineSettings) lineSettings;
    decltype(&rackSimCounter) counter;

    bool load(HMODULE module)
    {
        return resolve(module, "rackSimReset", reset) && resolve(module, "rackSimAddDevice", addDevice) &&
               resolve(module, "rackSimAddSlots", addSlots) && resolve(module, "rackSimInsertCard", insertCard) &&
               resolve(module, "rackSimRemoveCard", removeCard) && resolve(module, "rackSimSetEcho", setEcho) &&
               resolve(module, "rackSimSetFixedAnswer", setFixedAnswer) &&
               resolve(module, "rackSimIsOpen", isOpen) && resolve(module, "rackSimLineSettings", lineSettings) &&
               resolve(module, "rackSimCounter", counter);
    }
};

// The library's API, typed by the platform's declarations.
struct Api {
    decltype(&SCardEstablishContext) establishContext;
    decltype(&SCardReleaseContext) releaseContext;
    decltype(&SCardIsValidContext) isValidContext;
    decltype(&SCardListReadersA) listReadersA;
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
    decltype(&SCardBeginTransaction) beginTransaction;
    decltype(&SCardEndTransaction) endTransaction;
    const SCARD_IO_REQUEST* t0Pci;
    const SCARD_IO_REQUEST* t1Pci;
    const SCARD_IO_REQUEST* rawPci;

    bool load(HMODULE module)
    {
        return resolve(module, "SCardEstablishContext", establishContext) &&
               resolve(module, "SCardReleaseContext", releaseContext) &&
               resolve(module, "SCardIsValidContext", isValidContext) &&
               resolve(module, "SCardListReadersA", listReadersA) &&
               resolve(module, "SCardListReadersW", listReadersW) &&
               resolve(module, "SCardFreeMemory", freeMemory) &&
               resolve(module, "SCardGetStatusChangeA", getStatusChangeA) &&
               resolve(module, "SCardGetStatusChangeW", getStatusChangeW) &&
               resolve(module, "SCardConnectA", connectA) && resolve(module, "SCardConnectW", connectW) &&
               resolve(module, "SCardReconnect", reconnect) && resolve(module, "SCardDisconnect", disconnect) &&
               resolve(module, "SCardStatusA", statusA) && resolve(module, "SCardStatusW", statusW) &&
               resolve(module, "SCardTransmit", transmit) && resolve(module, "SCardGetAttrib", getAttrib) &&
               resolve(module, "SCardBeginTransaction", beginTransaction) &&
               resolve(module, "SCardEndTransaction", endTransaction) &&
               resolve(module, "g_rgSCardT0Pci", t0Pci) && resolve(module, "g_rgSCardT1Pci", t1Pci) &&
               resolve(module, "g_rgSCardRawPci", rawPci);
    }
};

// The export table as the loader sees it: every ordinal leads to the entry
// of its name.
struct Export {
    const char* name;
    WORD ordinal;
};

const Export kExports[] = {
    {"SCardGetStatusChangeW", 1}, {"_CloseConnections@0", 2}, {"_KickOff@0", 3},
    {"SCardBeginTransaction", 4}, {"SCardCancel", 5},           {"SCardConnectA", 6},
    {"SCardConnectW", 7},         {"SCardControl", 8},          {"SCardDisconnect", 9},
    {"SCardEndTransaction", 10},  {"SCardEstablishContext", 11}, {"SCardFreeMemory", 12},
    {"SCardGetAttrib", 13},       {"SCardGetStatusChangeA", 14}, {"SCardIsValidContext", 15},
    {"SCardListReadersA", 16},    {"SCardListReadersW", 17},     {"SCardReconnect", 18},
    {"SCardReleaseContext", 19},  {"SCardReset", 20},            {"SCardStatusA", 21},
    {"SCardStatusW", 22},         {"SCardTransmit", 23},         {"g_rgSCardRawPci", 24},
    {"g_rgSCardT0Pci", 25},       {"g_rgSCardT1Pci", 26},
};

// ---- The log file ----------------------------------------------------------------

std::wstring logFilePath()
{
    PWSTR folder = nullptr;
    std::wstring path;
    if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_PublicDocuments, 0, nullptr, &folder)) && folder)
        path = std::wstring(folder) + L"\\QuorvaneDLL.log";
    if (folder) CoTaskMemFree(folder);
    return path;
}

std::string readWholeFile(const std::wstring& path)
{
    std::string text;
    if (FILE* file = _wfopen(path.c_str(), L"rb")) {
        char chunk[4096];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, n);
        std::fclose(file);
    }
    return text;
}

bool everyLineEndIsCrLf(const std::string& text)
{
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) return false;
    return true;
}

// ---- Card events while a host thread waits ------------------------------------

// Runs `action` on another thread after `delayMs`, while the caller blocks
// in a status change call.
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

constexpr DWORD kEventWaitMs = 30000;  // the status change's own bound

const std::vector<BYTE> kAtrT0ThenT1 = {0x3B, 0x80, 0x80, 0x01};
const std::vector<BYTE> kAtrT1 = {0x3B, 0x80, 0x01};
const std::vector<BYTE> kAtrT0 = {0x3B, 0x80, 0x00};

// ---- Scenarios -------------------------------------------------------------------

HMODULE loadEmulator(Emulator& sim)
{
    std::wstring path = programFolder() + L"\\FTD2XX.dll";
    HMODULE module = LoadLibraryW(path.c_str());
    if (!check(module != nullptr, "the rack emulator loads as FTD2XX.dll (error %lu)", GetLastError()))
        return nullptr;
    if (!check(sim.load(module), "the emulator exports its control surface")) return nullptr;
    // The D2XX face by ordinal, as winscard.dll binds to it.
    const struct {
        const char* name;
        WORD ordinal;
    } d2xx[] = {{"FT_Close", 2},           {"FT_Read", 3},
                {"FT_Write", 4},           {"FT_SetBaudRate", 7},
                {"FT_SetDataCharacteristics", 8}, {"FT_GetQueueStatus", 18},
                {"FT_OpenEx", 27},         {"FT_ListDevices", 28},
                {"FT_CreateDeviceInfoList", 70}, {"FT_GetDeviceInfoList", 71}};
    bool ordinalsRight = true;
    for (const auto& entry : d2xx) {
        FARPROC byName = GetProcAddress(module, entry.name);
        FARPROC byOrdinal = GetProcAddress(module, MAKEINTRESOURCEA(entry.ordinal));
        if (byName == nullptr || byName != byOrdinal) {
            ordinalsRight = false;
            info("emulator: %s is not at ordinal %u", entry.name, entry.ordinal);
        }
    }
    check(ordinalsRight, "the emulator's D2XX functions sit at the D2XX ordinals");
    return module;
}

HMODULE loadLibrary()
{
    std::wstring path = programFolder() + L"\\winscard.dll";
    DWORD start = GetTickCount();
    HMODULE module = LoadLibraryW(path.c_str());
    DWORD error = GetLastError();
    info("LoadLibrary(winscard.dll) returned after %lu ms", GetTickCount() - start);
    if (!check(module != nullptr, "winscard.dll loads (error %lu)", error)) return nullptr;

    wchar_t loaded[MAX_PATH];
    DWORD length = GetModuleFileNameW(module, loaded, MAX_PATH);
    std::wstring loadedPath(loaded, length);
    check(_wcsicmp(loadedPath.c_str(), path.c_str()) == 0, "the module loaded is ours, not a built-in one: %s",
          narrow(loadedPath).c_str());

    bool exportsRight = true;
    for (const Export& entry : kExports) {
        FARPROC byName = GetProcAddress(module, entry.name);
        FARPROC byOrdinal = GetProcAddress(module, MAKEINTRESOURCEA(entry.ordinal));
        if (byName == nullptr || byName != byOrdinal) {
            exportsRight = false;
            info("winscard.dll: %s is not at ordinal %u", entry.name, entry.ordinal);
        }
    }
    check(exportsRight, "all 26 exports are found by name and by their ordinals");
    check(GetProcAddress(module, "KickOff") == nullptr && GetProcAddress(module, "SCardTransmit@28") == nullptr,
          "no export under another form of a name");
    return module;
}

// Two racks and a device that is no rack. Rack W1: R1 a T=0/T=1 card, R2
// empty, R3 a T=1 card. Rack W2: R1 a T=0 card, R2 empty.
void setUpRacks(Emulator& sim)
{
    sim.reset();
    sim.addDevice("USB Serial Port", "FT000001");
    int w1 = sim.addDevice("Smart Card Rack", "W1");
    int w2 = sim.addDevice("Smart Card Rack", "W2");
    sim.addSlots(w1, 1, 3);
    sim.insertCard(w1, 1, kAtrT0ThenT1.data(), static_cast<int>(kAtrT0ThenT1.size()));
    sim.insertCard(w1, 3, kAtrT1.data(), static_cast<int>(kAtrT1.size()));
    sim.addSlots(w2, 1, 2);
    sim.insertCard(w2, 1, kAtrT0.data(), static_cast<int>(kAtrT0.size()));
}

const int kOther = 0, kW1 = 1, kW2 = 2;

void bringUp(const Api& api, Emulator& sim, SCARDCONTEXT& context)
{
    LONG result = api.establishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    check(result == SCARD_S_SUCCESS, "SCardEstablishContext succeeds (0x%08lx)", result);
    result = api.isValidContext(context);
    check(result == SCARD_S_SUCCESS, "SCardIsValidContext: every rack enumerated (0x%08lx)", result);

    check(sim.isOpen(kW1) == 1 && sim.isOpen(kW2) == 1, "both racks are open");
    check(sim.isOpen(kOther) == 0, "the device that is no rack is left alone");
    unsigned baud = 0;
    int bits = -1, stops = -1, parity = -1;
    sim.lineSettings(kW1, &baud, &bits, &stops, &parity);
    check(baud == 115200 && bits == 8 && stops == 0 && parity == 0, "line set to 115200 8N1 (%u %d %d %d)", baud, bits,
          stops, parity);

    check(api.t0Pci->dwProtocol == SCARD_PROTOCOL_T0 && api.t0Pci->cbPciLength == sizeof(SCARD_IO_REQUEST),
          "g_rgSCardT0Pci is {T0, 8}");
    check(api.t1Pci->dwProtocol == SCARD_PROTOCOL_T1 && api.t1Pci->cbPciLength == sizeof(SCARD_IO_REQUEST),
          "g_rgSCardT1Pci is {T1, 8}");
    check(api.rawPci->dwProtocol == 4 && api.rawPci->cbPciLength == sizeof(SCARD_IO_REQUEST),
          "g_rgSCardRawPci is {4, 8}");
}

const char kExpectedList[] = "Tessel W1 R1\0Tessel W1 R2\0Tessel W1 R3\0Tessel W2 R1\0Tessel W2 R2\0";
const size_t kExpectedListLength = sizeof kExpectedList;  // with the closing NUL

void listing(const Api& api, SCARDCONTEXT context)
{
    const std::string expected(kExpectedList, kExpectedListLength);

    DWORD size = 0;
    LONG result = api.listReadersA(context, nullptr, nullptr, &size);
    check(result == SCARD_S_SUCCESS && size == expected.size(), "SCardListReadersA size query: %lu characters",
          size);

    std::vector<char> names(size + 8, '#');
    DWORD capacity = size;
    result = api.listReadersA(context, nullptr, names.data(), &capacity);
    check(result == SCARD_S_SUCCESS && std::string(names.data(), expected.size()) == expected &&
              names[expected.size()] == '#',
          "SCardListReadersA lists the five readers in rack and slot order");

    DWORD tooSmall = 4;
    result = api.listReadersA(context, nullptr, names.data(), &tooSmall);
    check(result == SCARD_E_INSUFFICIENT_BUFFER && tooSmall == expected.size(),
          "SCardListReadersA with a short buffer: insufficient buffer and the size needed");

    LPWSTR wide = nullptr;
    DWORD wideSize = SCARD_AUTOALLOCATE;
    result = api.listReadersW(context, nullptr, reinterpret_cast<LPWSTR>(&wide), &wideSize);
    bool wideRight = result == SCARD_S_SUCCESS && wide != nullptr && wideSize == expected.size() &&
                     std::wstring(wide, wideSize) == widen(expected);
    check(wideRight, "SCardListReadersW with SCARD_AUTOALLOCATE gives the same list, wide");
    if (wide) check(api.freeMemory(context, wide) == SCARD_S_SUCCESS, "SCardFreeMemory takes the block back");
}

void statusChange(const Api& api, Emulator& sim, SCARDCONTEXT context)
{
    SCARD_READERSTATEA states[3] = {};
    states[0].szReader = "Tessel W1 R1";
    states[1].szReader = "Tessel W1 R2";
    states[2].szReader = "Tessel W2 R1";
    for (auto& state : states) state.dwCurrentState = SCARD_STATE_UNAWARE;
    LONG result = api.getStatusChangeA(context, 0, states, 3);
    check(result == SCARD_S_SUCCESS, "SCardGetStatusChangeA answers an unaware host at once (0x%08lx)", result);
    check(states[0].dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT) &&
              std::vector<BYTE>(states[0].rgbAtr, states[0].rgbAtr + states[0].cbAtr) == kAtrT0ThenT1,
          "W1 R1: present with its ATR (state 0x%lx, ATR %s)", states[0].dwEventState,
          hex(states[0].rgbAtr, states[0].cbAtr).c_str());
    check(states[1].dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_EMPTY) && states[1].cbAtr == 0,
          "W1 R2: empty (state 0x%lx)", states[1].dwEventState);
    check(states[2].dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT) &&
              std::vector<BYTE>(states[2].rgbAtr, states[2].rgbAtr + states[2].cbAtr) == kAtrT0,
          "W2 R1: present with its ATR (state 0x%lx)", states[2].dwEventState);

    // Nothing changes: the wait runs out.
    SCARD_READERSTATEA quiet = states[0];
    quiet.dwCurrentState = SCARD_STATE_PRESENT;
    result = api.getStatusChangeA(context, 300, &quiet, 1);
    check(result == SCARD_E_TIMEOUT, "SCardGetStatusChangeA without a change: SCARD_E_TIMEOUT (0x%08lx)", result);

    // A card goes into W1 R2 while the host waits.
    SCARD_READERSTATEA arrival = states[1];
    arrival.dwCurrentState = SCARD_STATE_EMPTY;
    {
        Later insert(500, [&sim] { sim.insertCard(kW1, 2, kAtrT1.data(), static_cast<int>(kAtrT1.size())); });
        result = api.getStatusChangeA(context, kEventWaitMs, &arrival, 1);
    }
    check(result == SCARD_S_SUCCESS && arrival.dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT) &&
              std::vector<BYTE>(arrival.rgbAtr, arrival.rgbAtr + arrival.cbAtr) == kAtrT1,
          "SCardGetStatusChangeA sees a card inserted while it waits (0x%08lx, state 0x%lx, ATR %s)", result,
          arrival.dwEventState, hex(arrival.rgbAtr, arrival.cbAtr).c_str());

    // And leaves it again, seen by the wide form.
    SCARD_READERSTATEW removal = {};
    removal.szReader = L"Tessel W1 R2";
    removal.dwCurrentState = SCARD_STATE_PRESENT;
    {
        Later remove(500, [&sim] { sim.removeCard(kW1, 2); });
        result = api.getStatusChangeW(context, kEventWaitMs, &removal, 1);
    }
    check(result == SCARD_S_SUCCESS && removal.dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_EMPTY) &&
              removal.cbAtr == 0,
          "SCardGetStatusChangeW sees the card removed while it waits (0x%08lx, state 0x%lx)", result,
          removal.dwEventState);

    SCARD_READERSTATEA unknown = {};
    unknown.szReader = "Tessel W9 R1";
    result = api.getStatusChangeA(context, 0, &unknown, 1);
    check(result == SCARD_E_UNKNOWN_READER, "SCardGetStatusChangeA on an unknown name: SCARD_E_UNKNOWN_READER");
}

std::vector<BYTE> transmit(const Api& api, SCARDHANDLE card, const SCARD_IO_REQUEST* pci,
                           const std::vector<BYTE>& command, LONG& result)
{
    std::vector<BYTE> answer(4096 + 16, 0xEE);
    DWORD length = 4096;
    result = api.transmit(card, pci, command.data(), static_cast<DWORD>(command.size()), nullptr, answer.data(),
                          &length);
    if (result != SCARD_S_SUCCESS || length > 4096) return {};
    answer.resize(length);
    return answer;
}

void session(const Api& api, Emulator& sim, SCARDCONTEXT context)
{
    SCARDHANDLE r1 = 0;
    DWORD active = 0;
    LONG result = api.connectA(context, "Tessel W1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                               &r1, &active);
    check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T0 && r1 != 0,
          "SCardConnectA W1 R1: T=0 as its ATR names first (0x%08lx, protocol %lu)", result, active);

    SCARDHANDLE r3 = 0;
    result = api.connectW(context, L"Tessel W1 R3", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &r3, &active);
    check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T1 && r3 != 0 && r3 != r1,
          "SCardConnectW W1 R3: T=1, a handle of its own (0x%08lx, protocol %lu)", result, active);

    SCARDHANDLE none = 0;
    result = api.connectA(context, "Tessel W1 R2", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &none, &active);
    check(result == SCARD_E_NO_SMARTCARD, "SCardConnectA to the empty slot: SCARD_E_NO_SMARTCARD (0x%08lx)", result);
    result = api.connectA(context, "Tessel W9 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &none, &active);
    check(result == SCARD_E_READER_UNAVAILABLE, "SCardConnectA to an unknown reader: SCARD_E_READER_UNAVAILABLE");
    result = api.connectA(context, "Tessel W1 R3", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &none, &active);
    check(result == SCARD_E_PROTO_MISMATCH, "SCardConnectA asking T=0 of a T=1 card: SCARD_E_PROTO_MISMATCH");

    SCARDHANDLE w2 = 0;
    result = api.connectA(context, "Tessel W2 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &w2, &active);
    check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T0, "SCardConnectA W2 R1 on the second rack");

    // Short answers: the default 90 00, then an echo.
    const std::vector<BYTE> select = {0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
    int transmitted = 0;  // commands that reached a card
    std::vector<BYTE> answer = transmit(api, r1, api.t0Pci, select, result);
    ++transmitted;
    check(result == SCARD_S_SUCCESS && answer == std::vector<BYTE>{0x90, 0x00}, "SCardTransmit short answer: %s",
          hex(answer.data(), answer.size()).c_str());

    sim.setEcho(kW1, 3);
    const std::vector<BYTE> challenge = {0x00, 0x84, 0x00, 0x00, 0x08};
    answer = transmit(api, r3, api.t1Pci, challenge, result);
    ++transmitted;
    check(result == SCARD_S_SUCCESS && answer == challenge, "SCardTransmit on T=1: the echo comes back (%s)",
          hex(answer.data(), answer.size()).c_str());

    // Extended answers: 256 bytes and more go out in the extended frame.
    // The receive side stops reading while 1,000 bytes are held, so the
    // largest answer that always assembles is a little below that.
    for (size_t size : {256u, 600u, 900u}) {
        std::vector<BYTE> record(size);
        for (size_t i = 0; i < size; ++i) record[i] = static_cast<BYTE>((i * 7 + size) % 251);
        sim.setFixedAnswer(kW1, 1, record.data(), static_cast<int>(record.size()));
        const std::vector<BYTE> read = {0x00, 0xB0, 0x00, 0x00, 0x00};
        answer = transmit(api, r1, api.t0Pci, read, result);
        ++transmitted;
        check(result == SCARD_S_SUCCESS && answer == record, "SCardTransmit extended answer of %u bytes (got %u)",
              static_cast<unsigned>(size), static_cast<unsigned>(answer.size()));
    }

    const std::vector<BYTE> verify = {0x00, 0x20, 0x00, 0x80, 0x04, 0x31, 0x32, 0x33, 0x34};
    answer = transmit(api, w2, api.t0Pci, verify, result);
    ++transmitted;
    check(result == SCARD_S_SUCCESS && answer == std::vector<BYTE>{0x90, 0x00},
          "SCardTransmit on the second rack's reader");

    // Status of the connection, both forms.
    char name[64] = {};
    BYTE atr[36] = {};
    DWORD nameLength = sizeof name, atrLength = sizeof atr, state = 0, protocol = 0;
    result = api.statusA(r1, name, &nameLength, &state, &protocol, atr, &atrLength);
    check(result == SCARD_S_SUCCESS && std::string(name) == "Tessel W1 R1" && state == 4 &&
              protocol == SCARD_PROTOCOL_T0 && std::vector<BYTE>(atr, atr + atrLength) == kAtrT0ThenT1,
          "SCardStatusA: name, card state 4, T=0 and the ATR (0x%08lx, %s, %lu, %lu, %s)", result, name, state,
          protocol, hex(atr, atrLength).c_str());

    LPWSTR wideName = nullptr;
    DWORD wideLength = SCARD_AUTOALLOCATE;
    protocol = 0;
    result = api.statusW(r3, reinterpret_cast<LPWSTR>(&wideName), &wideLength, nullptr, &protocol, nullptr, nullptr);
    check(result == SCARD_S_SUCCESS && wideName != nullptr && std::wstring(wideName) == L"Tessel W1 R3" &&
              protocol == SCARD_PROTOCOL_T1,
          "SCardStatusW with SCARD_AUTOALLOCATE: the wide name and T=1");
    if (wideName) api.freeMemory(context, wideName);

    // Attributes.
    BYTE attribute[64];
    std::memset(attribute, 0xEE, sizeof attribute);
    DWORD attributeLength = sizeof attribute;
    result = api.getAttrib(r1, SCARD_ATTR_VENDOR_NAME, attribute, &attributeLength);
    check(result == SCARD_S_SUCCESS && std::strcmp(reinterpret_cast<char*>(attribute), "Quorvane Ltd.") == 0 &&
              attributeLength == 24,
          "SCardGetAttrib vendor name: \"%s\", %lu bytes", result == SCARD_S_SUCCESS ? (char*)attribute : "",
          attributeLength);
    attributeLength = sizeof attribute;
    result = api.getAttrib(r1, SCARD_ATTR_ATR_STRING, attribute, &attributeLength);
    check(result == SCARD_S_SUCCESS &&
              std::vector<BYTE>(attribute, attribute + attributeLength) == kAtrT0ThenT1,
          "SCardGetAttrib ATR string: %s", hex(attribute, attributeLength).c_str());

    check(api.beginTransaction(r1) == SCARD_S_SUCCESS && api.endTransaction(r1, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS,
          "SCardBeginTransaction and SCardEndTransaction succeed");
    // The slot is sent its stored protocol again; the active protocol is
    // not told anew.
    result = api.reconnect(r3, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_RESET_CARD, &active);
    check(result == SCARD_S_SUCCESS, "SCardReconnect W1 R3, resetting the card (0x%08lx)", result);
    answer = transmit(api, r3, api.t1Pci, challenge, result);
    check(result == SCARD_S_SUCCESS && answer == challenge, "SCardTransmit after the reconnect");
    ++transmitted;

    check(api.disconnect(r1, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS, "SCardDisconnect W1 R1, leaving the card");
    check(api.disconnect(r3, SCARD_UNPOWER_CARD) == SCARD_S_SUCCESS, "SCardDisconnect W1 R3, unpowering it");
    check(api.disconnect(w2, SCARD_RESET_CARD) == SCARD_S_SUCCESS, "SCardDisconnect W2 R1, resetting it");
    result = api.disconnect(0x12345678, SCARD_RESET_CARD);
    check(result == SCARD_E_READER_UNAVAILABLE,
          "SCardDisconnect of a handle no reader holds: SCARD_E_READER_UNAVAILABLE (0x%08lx)", result);

    long long violations = sim.counter(kW1, RACKSIM_BUS_VIOLATIONS) + sim.counter(kW2, RACKSIM_BUS_VIOLATIONS);
    check(violations == 0, "one message at a time on each rack's bus (%lld breaches)", violations);
    long long answered = sim.counter(kW1, RACKSIM_COMMANDS_ANSWERED) + sim.counter(kW2, RACKSIM_COMMANDS_ANSWERED);
    check(answered == transmitted, "the cards answered every command once (%lld of %d)", answered, transmitted);

    check(api.releaseContext(context) == SCARD_S_SUCCESS, "SCardReleaseContext succeeds");
}

// Checks the log: its place, the banner first, CR LF line ends, `ordered`
// entries in this order and `present` entries anywhere (those that a host
// call and the discovery thread write side by side).
void logFile(std::initializer_list<const char*> ordered, std::initializer_list<const char*> present)
{
    std::wstring path = logFilePath();
    check(!path.empty(), "the shell names the public documents folder");
    std::string log = readWholeFile(path);
    if (!check(!log.empty(), "the log file exists: %s", narrow(path).c_str())) return;

    size_t firstEnd = log.find('\n');
    std::string firstLine = log.substr(0, firstEnd);
    const std::string banner = "QuorvaneTesselRack driver: 1.2.3";
    check(firstLine.find(banner) != std::string::npos && firstLine.find("\t") != std::string::npos,
          "the log starts with the stamped banner");
    check(everyLineEndIsCrLf(log), "every line end in the log is CR LF");

    size_t at = 0;
    for (const char* entry : ordered) {
        size_t found = log.find(entry, at);
        check(found != std::string::npos, "the log has \"%s\" in its place", entry);
        if (found != std::string::npos) at = found;
    }
    for (const char* entry : present)
        check(log.find(entry) != std::string::npos, "the log has \"%s\"", entry);
}

// After FreeLibrary the module stays mapped (it pins itself), and its rack
// threads keep serving: a card event still reaches a status change call
// made through the old entry.
void unload(HMODULE library, const Api& api, Emulator& sim)
{
    check(FreeLibrary(library) != 0, "FreeLibrary(winscard.dll) returns");
    Sleep(200);
    HMODULE still = GetModuleHandleW(L"winscard.dll");
    check(still == library, "winscard.dll stays mapped after FreeLibrary");
    if (still != library) return;  // calling into it would crash the host

    SCARD_READERSTATEA arrival = {};
    arrival.szReader = "Tessel W2 R2";
    arrival.dwCurrentState = SCARD_STATE_EMPTY;
    LONG result;
    {
        Later insert(300, [&sim] { sim.insertCard(kW2, 2, kAtrT1.data(), static_cast<int>(kAtrT1.size())); });
        result = api.getStatusChangeA(0, kEventWaitMs, &arrival, 1);
    }
    check(result == SCARD_S_SUCCESS && arrival.dwEventState == (SCARD_STATE_CHANGED | SCARD_STATE_PRESENT),
          "after FreeLibrary the rack threads still follow card events (0x%08lx)", result);
}

int fullSession()
{
    Emulator sim{};
    if (!loadEmulator(sim)) return 1;
    setUpRacks(sim);
    check(GetModuleHandleW(L"winscard.dll") == nullptr, "winscard.dll is not loaded before the host asks for it");

    HMODULE library = loadLibrary();
    if (!library) return 1;
    Api api{};
    if (!check(api.load(library), "every function and record resolves")) return 1;

    SCARDCONTEXT context = 0;
    bringUp(api, sim, context);
    listing(api, context);
    statusChange(api, sim, context);
    g_failed += runPnpCancelCases(library, "Tessel W1 R2", kW1, 2);
    session(api, sim, context);

    logFile({"Found device with serial W1", "Found device with serial W2", "SCardListReadersA",
             "SCardGetStatusChangeA", "SCardConnectA: Tessel W1 R1", "get_atr", "Release Context"},
            {"Hit Establish Context"});
    check(readWholeFile(logFilePath()).find("FT000001") == std::string::npos,
          "the device that is no rack leaves no trace");

    unload(library, api, sim);
    return 0;
}

int noRacks()
{
    Emulator sim{};
    if (!loadEmulator(sim)) return 1;
    sim.reset();
    sim.addDevice("Smart Card Rack 2", "X1");  // not the rack's description
    sim.addDevice("smart card rack", "X2");

    HMODULE library = loadLibrary();
    if (!library) return 1;
    Api api{};
    if (!check(api.load(library), "every function and record resolves")) return 1;

    SCARDCONTEXT context = 0;
    LONG result = api.establishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    check(result == SCARD_S_SUCCESS, "SCardEstablishContext succeeds after its full wait (0x%08lx)", result);
    check(sim.isOpen(0) == 0 && sim.isOpen(1) == 0, "no device is opened");
    DWORD size = 0;
    result = api.listReadersA(context, nullptr, nullptr, &size);
    check(result == SCARD_E_NO_READERS_AVAILABLE, "SCardListReadersA: SCARD_E_NO_READERS_AVAILABLE (0x%08lx)",
          result);
    LPWSTR wide = nullptr;
    DWORD wideSize = SCARD_AUTOALLOCATE;
    result = api.listReadersW(context, nullptr, reinterpret_cast<LPWSTR>(&wide), &wideSize);
    check(result == SCARD_E_NO_READERS_AVAILABLE && wide == nullptr,
          "SCardListReadersW: SCARD_E_NO_READERS_AVAILABLE, nothing allocated");
    SCARDHANDLE card = 0;
    DWORD active = 0;
    result = api.connectA(context, "Tessel X1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, &card, &active);
    check(result == SCARD_E_READER_UNAVAILABLE, "SCardConnectA: SCARD_E_READER_UNAVAILABLE");

    logFile({"Hit Establish Context", "Time: "}, {"No racks found!"});
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::wstring mode = argc > 1 ? argv[1] : L"";
    int setupFailed = 0;
    if (mode.empty()) {
        std::printf("== full session: two racks, five readers ==\n");
        setupFailed = fullSession();
    } else if (mode == L"no-racks") {
        std::printf("== a device list without racks ==\n");
        setupFailed = noRacks();
    } else {
        std::printf("unknown mode %s\n", narrow(mode).c_str());
        return 2;
    }
    if (setupFailed && g_failed == 0) check(false, "the scenario could not start");
    std::printf("%d passed, %d failed\n", g_passed, g_failed);
    std::fflush(stdout);
    return g_failed == 0 ? 0 : 1;
}
