// The whole published surface, as a host that binds every name with
// GetProcAddress (as pyscard does) sees it: every name resolves, each call
// answers good and bad arguments, every out-parameter is written (each is
// pre-filled with a pattern first), and every attribute comes back in the
// three buffer forms with its true length.
#include "tests/wine/host_cases.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

// What an out-parameter holds before the call: a value no answer has.
constexpr DWORD kPattern = 0xA5A5A5A5;
constexpr BYTE kPatternByte = 0xA5;
// The platform's SCARD_E_UNSUPPORTED_FEATURE, and what must never come
// instead of it.
constexpr LONG kUnsupported = static_cast<LONG>(0x80100022);
constexpr LONG kNotSupported = 50;

// The 74 functions and 3 records of the system's winscard.dll.
const char* const kPublished[] = {
    "ClassInstall32", "SCardAccessNewReaderEvent", "SCardAccessStartedEvent", "SCardAddReaderToGroupA",
    "SCardAddReaderToGroupW", "SCardAudit", "SCardBeginTransaction", "SCardCancel", "SCardConnectA", "SCardConnectW",
    "SCardControl", "SCardDisconnect", "SCardEndTransaction", "SCardEstablishContext", "SCardForgetCardTypeA",
    "SCardForgetCardTypeW", "SCardForgetReaderA", "SCardForgetReaderGroupA", "SCardForgetReaderGroupW",
    "SCardForgetReaderW", "SCardFreeMemory", "SCardGetAttrib", "SCardGetCardTypeProviderNameA",
    "SCardGetCardTypeProviderNameW", "SCardGetDeviceTypeIdA", "SCardGetDeviceTypeIdW", "SCardGetProviderIdA",
    "SCardGetProviderIdW", "SCardGetReaderDeviceInstanceIdA", "SCardGetReaderDeviceInstanceIdW",
    "SCardGetReaderIconA", "SCardGetReaderIconW", "SCardGetStatusChangeA", "SCardGetStatusChangeW",
    "SCardGetTransmitCount", "SCardIntroduceCardTypeA", "SCardIntroduceCardTypeW", "SCardIntroduceReaderA",
    "SCardIntroduceReaderGroupA", "SCardIntroduceReaderGroupW", "SCardIntroduceReaderW", "SCardIsValidContext",
    "SCardListCardsA", "SCardListCardsW", "SCardListInterfacesA", "SCardListInterfacesW", "SCardListReaderGroupsA",
    "SCardListReaderGroupsW", "SCardListReadersA", "SCardListReadersW", "SCardListReadersWithDeviceInstanceIdA",
    "SCardListReadersWithDeviceInstanceIdW", "SCardLocateCardsA", "SCardLocateCardsByATRA",
    "SCardLocateCardsByATRW", "SCardLocateCardsW", "SCardReadCacheA", "SCardReadCacheW", "SCardReconnect",
    "SCardReleaseAllEvents", "SCardReleaseContext", "SCardReleaseNewReaderEvent", "SCardReleaseStartedEvent",
    "SCardRemoveReaderFromGroupA", "SCardRemoveReaderFromGroupW", "SCardSetAttrib", "SCardSetCardTypeProviderNameA",
    "SCardSetCardTypeProviderNameW", "SCardState", "SCardStatusA", "SCardStatusW", "SCardTransmit",
    "SCardWriteCacheA", "SCardWriteCacheW", "g_rgSCardRawPci", "g_rgSCardT0Pci", "g_rgSCardT1Pci",
};

// The published signatures that mingw-w64's <winscard.h> does not declare.
using DeviceTypeIdA = LONG(WINAPI*)(SCARDCONTEXT, LPCSTR, LPDWORD);
using DeviceTypeIdW = LONG(WINAPI*)(SCARDCONTEXT, LPCWSTR, LPDWORD);
using InstanceIdA = LONG(WINAPI*)(SCARDCONTEXT, LPCSTR, LPSTR, LPDWORD);
using InstanceIdW = LONG(WINAPI*)(SCARDCONTEXT, LPCWSTR, LPWSTR, LPDWORD);
using ReaderIconA = LONG(WINAPI*)(SCARDCONTEXT, LPCSTR, LPBYTE, LPDWORD);
using ReaderIconW = LONG(WINAPI*)(SCARDCONTEXT, LPCWSTR, LPBYTE, LPDWORD);
using Audit = LONG(WINAPI*)(SCARDCONTEXT, DWORD);
using AccessEvent = HANDLE(WINAPI*)(void);
using ReleaseEvent = void(WINAPI*)(void);
using ClassInstaller = DWORD(WINAPI*)(DWORD, HANDLE, void*);

template <typename Function>
Function bound(const Host& host, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(host.library, name)));
}
#define BIND(name) const auto name = bound<decltype(&::name)>(host, #name)

const char kCardReader[] = "Tessel W1 R3";  // a T=1 card, ATR 3B 80 01
const wchar_t kCardReaderW[] = L"Tessel W1 R3";
const char kNoReader[] = "Tessel W9 R9";

std::vector<BYTE> dword(DWORD value)
{
    std::vector<BYTE> out(4);
    std::memcpy(out.data(), &value, 4);
    return out;
}
std::vector<BYTE> text(const std::string& value) { return std::vector<BYTE>(value.begin(), value.end() + 0); }
std::vector<BYTE> textWithNul(const char* value) { return std::vector<BYTE>(value, value + std::strlen(value) + 1); }
std::vector<BYTE> wideWithNul(const wchar_t* value)
{
    const BYTE* first = reinterpret_cast<const BYTE*>(value);
    return std::vector<BYTE>(first, first + (std::wcslen(value) + 1) * sizeof(wchar_t));
}

bool publishedNamesBind(Host& host)
{
    int missing = 0;
    for (const char* name : kPublished)
        if (GetProcAddress(host.library, name) == nullptr) {
            check(false, "%s resolves by name", name);
            ++missing;
        }
    return check(missing == 0 && sizeof kPublished / sizeof kPublished[0] == 77,
                  "all 77 names of the system's winscard.dll resolve by name");
}

// One attribute in the three forms: a size query, the caller's buffer (and
// one a byte short), and SCARD_AUTOALLOCATE; each length pre-filled.
void attributeInEveryForm(Host& host, SCARDHANDLE card, DWORD id, const std::vector<BYTE>& expected)
{
    BIND(SCardGetAttrib);
    BIND(SCardFreeMemory);
    const DWORD size = static_cast<DWORD>(expected.size());
    DWORD length = kPattern;
    LONG result = SCardGetAttrib(card, id, nullptr, &length);
    check(result == SCARD_S_SUCCESS && length == size, "attribute 0x%08lx: size query gives %lu (0x%08lx, %lu)", id,
          size, result, length);

    std::vector<BYTE> buffer(size + 8, kPatternByte);
    length = size + 4;
    result = SCardGetAttrib(card, id, buffer.data(), &length);
    check(result == SCARD_S_SUCCESS && length == size && std::equal(expected.begin(), expected.end(), buffer.begin()) &&
              buffer[size] == kPatternByte,
          "attribute 0x%08lx: the caller's buffer gets its %lu bytes and nothing behind (0x%08lx)", id, size, result);

    if (size > 1) {
        length = size - 1;
        result = SCardGetAttrib(card, id, buffer.data(), &length);
        check(result == SCARD_E_INSUFFICIENT_BUFFER && length == size,
              "attribute 0x%08lx: a buffer a byte short is told the size (0x%08lx, %lu)", id, result, length);
    }

    BYTE* block = reinterpret_cast<BYTE*>(static_cast<uintptr_t>(kPattern));
    length = SCARD_AUTOALLOCATE;
    result = SCardGetAttrib(card, id, reinterpret_cast<BYTE*>(&block), &length);
    const bool handed = result == SCARD_S_SUCCESS && block != reinterpret_cast<BYTE*>(static_cast<uintptr_t>(kPattern));
    check(handed && length == size && std::equal(expected.begin(), expected.end(), block),
          "attribute 0x%08lx: SCARD_AUTOALLOCATE hands over a block of %lu bytes (0x%08lx)", id, size, result);
    if (handed) SCardFreeMemory(host.context, block);
}

void attributesAndControl(Host& host)
{
    BIND(SCardConnectA);
    BIND(SCardDisconnect);
    BIND(SCardGetAttrib);
    BIND(SCardSetAttrib);
    BIND(SCardControl);
    SCARDHANDLE card = 0;
    DWORD active = kPattern;
    LONG result = SCardConnectA(host.context, kCardReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active);
    if (!check(result == SCARD_S_SUCCESS, "a connection to %s (0x%08lx)", kCardReader, result)) return;

    const std::string vendor("Quorvane Ltd.\0\0\0\0\0\0\0\0\0\0\0", 24);
    const struct {
        DWORD id;
        std::vector<BYTE> value;
    } attributes[] = {
        {SCARD_ATTR_VENDOR_NAME, text(vendor)},
        {SCARD_ATTR_VENDOR_IFD_TYPE, textWithNul("Tessel Rack")},
        {SCARD_ATTR_VENDOR_IFD_VERSION, dword(0x01020003)},
        {SCARD_ATTR_VENDOR_IFD_SERIAL_NO, textWithNul("W1")},
        {SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, textWithNul(kCardReader)},
        {SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, wideWithNul(kCardReaderW)},
        {SCARD_ATTR_DEVICE_SYSTEM_NAME_A, textWithNul(kCardReader)},
        {SCARD_ATTR_DEVICE_SYSTEM_NAME_W, wideWithNul(kCardReaderW)},
        {SCARD_ATTR_CHANNEL_ID, dword(0x00200003)},
        {SCARD_ATTR_ATR_STRING, kAtrT1},
        {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, dword(SCARD_PROTOCOL_T1)},
        {SCARD_ATTR_ICC_PRESENCE, {2}},
        {SCARD_ATTR_ICC_INTERFACE_STATUS, {1}},
        {SCARD_ATTR_PROTOCOL_TYPES, dword(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1)},
        {SCARD_ATTR_DEFAULT_CLK, dword(3571)},
        {SCARD_ATTR_MAX_CLK, dword(3571)},
        {SCARD_ATTR_DEFAULT_DATA_RATE, dword(9600)},
        {SCARD_ATTR_MAX_DATA_RATE, dword(9600)},
        {SCARD_ATTR_MAX_IFSD, dword(254)},
        {SCARD_ATTR_CHARACTERISTICS, dword(0)},
        {SCARD_ATTR_POWER_MGMT_SUPPORT, dword(0)},
    };
    for (const auto& attribute : attributes) attributeInEveryForm(host, card, attribute.id, attribute.value);

    // Outside the set: the platform's code in every form, never 50.
    for (DWORD form : {DWORD(8), DWORD(SCARD_AUTOALLOCATE)}) {
        BYTE buffer[8];
        DWORD length = form;
        result = SCardGetAttrib(card, SCARD_ATTR_VALUE(SCARD_CLASS_VENDOR_DEFINED, 0x7A), buffer, &length);
        check(result == kUnsupported && result != kNotSupported,
              "an attribute outside the set gives SCARD_E_UNSUPPORTED_FEATURE (0x%08lx)", result);
    }
    DWORD length = kPattern;
    result = SCardGetAttrib(card + 0x100, SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, nullptr, &length);
    check(result == SCARD_E_INVALID_HANDLE, "a reader's attribute for an unknown handle (0x%08lx)", result);
    check(SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, nullptr, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardGetAttrib without a length");

    // Control codes: the count of bytes returned is written on every way.
    const DWORD featureRequest = SCARD_CTL_CODE(3400);
    BYTE out[64];
    DWORD returned = kPattern;
    result = SCardControl(card, featureRequest, nullptr, 0, out, sizeof out, &returned);
    check(result == SCARD_S_SUCCESS && returned == 0, "the feature request gets an empty list (0x%08lx, %lu)", result,
          returned);
    returned = kPattern;
    result = SCardControl(card, SCARD_CTL_CODE(1), nullptr, 0, out, sizeof out, &returned);
    check(result == kUnsupported && returned == 0, "another control code: unsupported, 0 bytes (0x%08lx, %lu)", result,
          returned);
    returned = kPattern;
    result = SCardControl(card + 0x100, featureRequest, nullptr, 0, out, sizeof out, &returned);
    check(result == SCARD_E_INVALID_HANDLE && returned == 0, "a control code for an unknown handle (0x%08lx)", result);

    const BYTE value[4] = {};
    check(SCardSetAttrib(card, SCARD_ATTR_VENDOR_NAME, value, 4) == kUnsupported, "SCardSetAttrib: unsupported");
    check(SCardSetAttrib(card, SCARD_ATTR_VENDOR_NAME, nullptr, 4) == SCARD_E_INVALID_PARAMETER,
          "SCardSetAttrib without a value");
    check(SCardSetAttrib(card + 0x100, SCARD_ATTR_VENDOR_NAME, value, 4) == SCARD_E_INVALID_HANDLE,
          "SCardSetAttrib for an unknown handle");
    SCardDisconnect(card, SCARD_LEAVE_CARD);
}

void readerGroups(Host& host)
{
    BIND(SCardListReaderGroupsA);
    BIND(SCardListReaderGroupsW);
    BIND(SCardListReadersA);
    BIND(SCardFreeMemory);
    const std::string groups("SCard$DefaultReaders\0", 22);
    char narrow[32];
    std::memset(narrow, kPatternByte, sizeof narrow);
    DWORD length = sizeof narrow;
    LONG result = SCardListReaderGroupsA(host.context, narrow, &length);
    check(result == SCARD_S_SUCCESS && length == 22 && std::string(narrow, 22) == groups,
          "SCardListReaderGroupsA lists SCard$DefaultReaders (0x%08lx, %lu)", result, length);
    LPWSTR wide = reinterpret_cast<LPWSTR>(static_cast<uintptr_t>(kPattern));
    length = SCARD_AUTOALLOCATE;
    result = SCardListReaderGroupsW(host.context, reinterpret_cast<LPWSTR>(&wide), &length);
    const bool handed = result == SCARD_S_SUCCESS && wide != reinterpret_cast<LPWSTR>(static_cast<uintptr_t>(kPattern));
    check(handed && length == 22 && std::wstring(wide, 22) == std::wstring(L"SCard$DefaultReaders\0", 22),
          "SCardListReaderGroupsW with SCARD_AUTOALLOCATE (0x%08lx)", result);
    if (handed) SCardFreeMemory(host.context, wide);
    // Windows lets the list calls run without a context; a released or
    // made-up one is still refused.
    length = 0;
    result = SCardListReadersA(0, nullptr, nullptr, &length);
    check(result == SCARD_S_SUCCESS && length > 1, "SCardListReadersA without a context (0x%08lx, %lu)", result,
          length);
    length = 0;
    result = SCardListReaderGroupsA(0x5A5A5A5A, nullptr, &length);
    check(result == SCARD_E_INVALID_HANDLE, "SCardListReaderGroupsA refuses a made-up context (0x%08lx)", result);
    length = 3;
    check(SCardListReaderGroupsA(host.context, narrow, &length) == SCARD_E_INSUFFICIENT_BUFFER && length == 22,
          "SCardListReaderGroupsA with a short buffer is told the size");
    check(SCardListReaderGroupsA(host.context, narrow, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardListReaderGroupsA without a length");

    const struct {
        const char* groups;
        LONG result;
        DWORD length;
    } listings[] = {
        {"SCard$AllReaders\0", SCARD_S_SUCCESS, 66},
        {"Other\0scard$defaultreaders\0", SCARD_S_SUCCESS, 66},
        {"Other\0", SCARD_E_NO_READERS_AVAILABLE, 1},
    };
    for (const auto& listing : listings) {
        length = kPattern;
        result = SCardListReadersA(host.context, listing.groups, nullptr, &length);
        check(result == listing.result && length == listing.length,
              "SCardListReadersA for groups \"%s\" (0x%08lx, %lu)", listing.groups, result, length);
    }

    BIND(SCardIntroduceReaderGroupA);
    BIND(SCardIntroduceReaderGroupW);
    BIND(SCardForgetReaderGroupA);
    BIND(SCardForgetReaderGroupW);
    BIND(SCardIntroduceReaderA);
    BIND(SCardIntroduceReaderW);
    BIND(SCardForgetReaderA);
    BIND(SCardForgetReaderW);
    BIND(SCardAddReaderToGroupA);
    BIND(SCardAddReaderToGroupW);
    BIND(SCardRemoveReaderFromGroupA);
    BIND(SCardRemoveReaderFromGroupW);
    const LONG refused[] = {
        SCardIntroduceReaderGroupA(host.context, "G"),      SCardIntroduceReaderGroupW(host.context, L"G"),
        SCardForgetReaderGroupA(host.context, "G"),         SCardForgetReaderGroupW(host.context, L"G"),
        SCardIntroduceReaderA(host.context, "R", "D"),      SCardIntroduceReaderW(host.context, L"R", L"D"),
        SCardForgetReaderA(host.context, kCardReader),      SCardForgetReaderW(host.context, kCardReaderW),
        SCardAddReaderToGroupA(host.context, "R", "G"),     SCardAddReaderToGroupW(host.context, L"R", L"G"),
        SCardRemoveReaderFromGroupA(host.context, "R", "G"), SCardRemoveReaderFromGroupW(host.context, L"R", L"G"),
    };
    const LONG invalid[] = {
        SCardIntroduceReaderGroupA(host.context, nullptr),       SCardIntroduceReaderGroupW(host.context, nullptr),
        SCardForgetReaderGroupA(host.context, nullptr),          SCardForgetReaderGroupW(host.context, nullptr),
        SCardIntroduceReaderA(host.context, "R", nullptr),       SCardIntroduceReaderW(host.context, nullptr, L"D"),
        SCardForgetReaderA(host.context, nullptr),               SCardForgetReaderW(host.context, nullptr),
        SCardAddReaderToGroupA(host.context, nullptr, "G"),      SCardAddReaderToGroupW(host.context, L"R", nullptr),
        SCardRemoveReaderFromGroupA(host.context, "R", nullptr), SCardRemoveReaderFromGroupW(host.context, nullptr, L"G"),
    };
    for (int i = 0; i < 12; ++i) {
        check(refused[i] == kUnsupported, "group and reader change %d is refused as unsupported (0x%08lx)", i,
              refused[i]);
        check(invalid[i] == SCARD_E_INVALID_PARAMETER, "group and reader change %d without a name (0x%08lx)", i,
              invalid[i]);
    }
}

const GUID kProvider = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};
const GUID kInterface = {0x87654321, 0x4321, 0x8765, {8, 7, 6, 5, 4, 3, 2, 1}};

void cardTypes(Host& host)
{
    BIND(SCardIntroduceCardTypeA);
    BIND(SCardIntroduceCardTypeW);
    BIND(SCardForgetCardTypeA);
    BIND(SCardForgetCardTypeW);
    BIND(SCardListCardsA);
    BIND(SCardListCardsW);
    BIND(SCardGetProviderIdA);
    BIND(SCardGetProviderIdW);
    BIND(SCardListInterfacesA);
    BIND(SCardListInterfacesW);
    BIND(SCardSetCardTypeProviderNameA);
    BIND(SCardSetCardTypeProviderNameW);
    BIND(SCardGetCardTypeProviderNameA);
    BIND(SCardGetCardTypeProviderNameW);
    BIND(SCardFreeMemory);
    const SCARDCONTEXT context = host.context;
    const BYTE atr[] = {0x3B, 0x80, 0x01}, mask[] = {0xFF, 0xFF, 0xFF};
    LONG result = SCardIntroduceCardTypeA(context, "Tessel Test Card", &kProvider, &kInterface, 1, atr, mask, 3);
    check(result == SCARD_S_SUCCESS, "SCardIntroduceCardTypeA (0x%08lx)", result);
    result = SCardIntroduceCardTypeW(context, L"Other Card", nullptr, nullptr, 0, kAtrT0.data(), nullptr, 3);
    check(result == SCARD_S_SUCCESS, "SCardIntroduceCardTypeW without a mask (0x%08lx)", result);
    check(SCardIntroduceCardTypeA(context, nullptr, &kProvider, nullptr, 0, atr, mask, 3) == SCARD_E_INVALID_PARAMETER &&
              SCardIntroduceCardTypeW(context, L"X", nullptr, nullptr, 0, nullptr, nullptr, 3) ==
                  SCARD_E_INVALID_PARAMETER,
          "SCardIntroduceCardType without a name or an ATR");

    char names[64];
    std::memset(names, kPatternByte, sizeof names);
    DWORD length = sizeof names;
    result = SCardListCardsA(context, atr, nullptr, 0, names, &length);
    check(result == SCARD_S_SUCCESS && length == 18 && std::string(names, 18) == std::string("Tessel Test Card\0", 18),
          "SCardListCardsA by ATR (0x%08lx, %lu)", result, length);
    LPWSTR wide = nullptr;
    length = SCARD_AUTOALLOCATE;
    result = SCardListCardsW(context, nullptr, &kInterface, 1, reinterpret_cast<LPWSTR>(&wide), &length);
    check(result == SCARD_S_SUCCESS && wide != nullptr && length == 18 &&
              std::wstring(wide, 18) == std::wstring(L"Tessel Test Card\0", 18),
          "SCardListCardsW by interface with SCARD_AUTOALLOCATE (0x%08lx, %lu)", result, length);
    if (wide != nullptr) SCardFreeMemory(context, wide);
    const BYTE otherAtr[] = {0x3B, 0x00, 0x00};
    length = kPattern;
    result = SCardListCardsA(context, otherAtr, nullptr, 0, nullptr, &length);
    check(result == SCARD_S_SUCCESS && length == 1, "SCardListCardsA for an ATR no type knows: an empty list (%lu)",
          length);
    check(SCardListCardsA(context, atr, nullptr, 0, names, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardListCardsA without a length");

    GUID provider;
    std::memset(&provider, kPatternByte, sizeof provider);
    result = SCardGetProviderIdA(context, "Tessel Test Card", &provider);
    check(result == SCARD_S_SUCCESS && std::memcmp(&provider, &kProvider, sizeof provider) == 0,
          "SCardGetProviderIdA (0x%08lx)", result);
    check(SCardGetProviderIdW(context, L"No Card", &provider) == SCARD_E_UNKNOWN_CARD &&
              SCardGetProviderIdW(context, L"Other Card", nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardGetProviderIdW for an unknown card and without an out value");

    GUID interfaces[2];
    std::memset(interfaces, kPatternByte, sizeof interfaces);
    DWORD count = 2;
    result = SCardListInterfacesW(context, L"Tessel Test Card", interfaces, &count);
    check(result == SCARD_S_SUCCESS && count == 1 && std::memcmp(&interfaces[0], &kInterface, sizeof(GUID)) == 0,
          "SCardListInterfacesW (0x%08lx, %lu)", result, count);
    count = kPattern;
    result = SCardListInterfacesA(context, "Other Card", nullptr, &count);
    check(result == SCARD_S_SUCCESS && count == 0, "SCardListInterfacesA size query for a type without (%lu)", count);
    check(SCardListInterfacesA(context, "No Card", nullptr, &count) == SCARD_E_UNKNOWN_CARD,
          "SCardListInterfacesA for an unknown card");

    result = SCardSetCardTypeProviderNameW(context, L"Tessel Test Card", SCARD_PROVIDER_CSP, L"Test CSP");
    check(result == SCARD_S_SUCCESS, "SCardSetCardTypeProviderNameW (0x%08lx)", result);
    check(SCardSetCardTypeProviderNameA(context, "No Card", SCARD_PROVIDER_CSP, "X") == SCARD_E_UNKNOWN_CARD &&
              SCardSetCardTypeProviderNameA(context, "Tessel Test Card", 77, "X") == SCARD_E_INVALID_VALUE,
          "SCardSetCardTypeProviderNameA for an unknown card and provider slot");
    std::memset(names, kPatternByte, sizeof names);
    length = sizeof names;
    result = SCardGetCardTypeProviderNameA(context, "Tessel Test Card", SCARD_PROVIDER_CSP, names, &length);
    check(result == SCARD_S_SUCCESS && length == 9 && std::string(names) == "Test CSP",
          "SCardGetCardTypeProviderNameA gives what was set (0x%08lx, %lu)", result, length);
    wchar_t guid[64];
    length = 64;
    result = SCardGetCardTypeProviderNameW(context, L"Tessel Test Card", SCARD_PROVIDER_PRIMARY, guid, &length);
    check(result == SCARD_S_SUCCESS && length == 39 && std::wstring(guid) == L"{12345678-1234-5678-0102-030405060708}",
          "SCardGetCardTypeProviderNameW: the primary provider as a GUID (0x%08lx, %lu)", result, length);
    length = 64;
    check(SCardGetCardTypeProviderNameW(context, L"Other Card", SCARD_PROVIDER_CSP, guid, &length) ==
              SCARD_E_UNKNOWN_CARD,
          "SCardGetCardTypeProviderNameW for a name never set");

    BIND(SCardLocateCardsA);
    BIND(SCardLocateCardsW);
    SCARD_READERSTATEA states[2] = {};
    states[0].szReader = kCardReader;
    states[1].szReader = "Tessel W2 R1";
    for (auto& state : states) state.dwEventState = kPattern, state.cbAtr = kPattern;
    result = SCardLocateCardsA(context, "Tessel Test Card\0", states, 2);
    check(result == SCARD_S_SUCCESS && (states[0].dwEventState & SCARD_STATE_ATRMATCH) != 0 &&
              (states[0].dwEventState & SCARD_STATE_PRESENT) != 0 && states[0].cbAtr == 3 &&
              (states[1].dwEventState & SCARD_STATE_ATRMATCH) == 0 && states[1].dwEventState != kPattern &&
              states[1].cbAtr == 3,
          "SCardLocateCardsA finds the card by its type's ATR (0x%08lx; 0x%lx, 0x%lx)", result, states[0].dwEventState,
          states[1].dwEventState);
    SCARD_READERSTATEW wideState = {};
    wideState.szReader = L"Tessel W9 R9";
    check(SCardLocateCardsW(context, L"Tessel Test Card\0", &wideState, 1) == SCARD_E_UNKNOWN_READER,
          "SCardLocateCardsW for an unknown reader");
    wideState.szReader = kCardReaderW;
    check(SCardLocateCardsW(context, L"No Card\0", &wideState, 1) == SCARD_E_UNKNOWN_CARD,
          "SCardLocateCardsW for an unknown card type");

    BIND(SCardLocateCardsByATRA);
    BIND(SCardLocateCardsByATRW);
    // 3B 80 xx: the last byte masked out matches both three-byte ATRs.
    SCARD_ATRMASK masks[1] = {};
    masks[0].cbAtr = 3;
    const BYTE wanted[] = {0x3B, 0x80, 0x00}, wantedMask[] = {0xFF, 0xFF, 0x00};
    std::memcpy(masks[0].rgbAtr, wanted, 3);
    std::memcpy(masks[0].rgbMask, wantedMask, 3);
    SCARD_READERSTATEW wideStates[3] = {};
    wideStates[0].szReader = L"Tessel W1 R1";
    wideStates[1].szReader = kCardReaderW;
    wideStates[2].szReader = L"Tessel W2 R1";
    for (auto& state : wideStates) state.dwEventState = kPattern;
    result = SCardLocateCardsByATRW(context, masks, 1, wideStates, 3);
    check(result == SCARD_S_SUCCESS && (wideStates[0].dwEventState & SCARD_STATE_ATRMATCH) == 0 &&
              wideStates[0].dwEventState != kPattern && (wideStates[1].dwEventState & SCARD_STATE_ATRMATCH) != 0 &&
              (wideStates[2].dwEventState & SCARD_STATE_ATRMATCH) != 0,
          "SCardLocateCardsByATRW matches with the mask (0x%08lx; 0x%lx 0x%lx 0x%lx)", result,
          wideStates[0].dwEventState, wideStates[1].dwEventState, wideStates[2].dwEventState);
    masks[0].cbAtr = 99;
    check(SCardLocateCardsByATRA(context, masks, 1, states, 2) == SCARD_E_INVALID_PARAMETER &&
              SCardLocateCardsByATRA(context, nullptr, 1, states, 2) == SCARD_E_INVALID_PARAMETER,
          "SCardLocateCardsByATRA with a bad mask or none");

    check(SCardForgetCardTypeA(context, "Tessel Test Card") == SCARD_S_SUCCESS &&
              SCardForgetCardTypeW(context, L"Other Card") == SCARD_S_SUCCESS,
          "SCardForgetCardType of both types");
    check(SCardForgetCardTypeA(context, "Tessel Test Card") == SCARD_E_UNKNOWN_CARD &&
              SCardForgetCardTypeW(context, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardForgetCardType of a forgotten type and without a name");
}

void cache(Host& host)
{
    BIND(SCardWriteCacheA);
    BIND(SCardWriteCacheW);
    BIND(SCardReadCacheA);
    BIND(SCardReadCacheW);
    BIND(SCardFreeMemory);
    UUID card = kProvider;
    BYTE data[] = {1, 2, 3, 4, 5};
    char name[] = "certificate";
    wchar_t wideName[] = L"certificate";
    LONG result = SCardWriteCacheA(host.context, &card, 7, name, data, sizeof data);
    check(result == SCARD_S_SUCCESS, "SCardWriteCacheA (0x%08lx)", result);
    BYTE back[8];
    std::memset(back, kPatternByte, sizeof back);
    DWORD length = sizeof back;
    result = SCardReadCacheA(host.context, &card, 7, name, back, &length);
    check(result == SCARD_S_SUCCESS && length == 5 && std::memcmp(back, data, 5) == 0 && back[5] == kPatternByte,
          "SCardReadCacheA gives the data back (0x%08lx, %lu)", result, length);
    BYTE* block = nullptr;
    length = SCARD_AUTOALLOCATE;
    result = SCardReadCacheW(host.context, &card, 7, wideName, reinterpret_cast<BYTE*>(&block), &length);
    check(result == SCARD_S_SUCCESS && block != nullptr && length == 5 && std::memcmp(block, data, 5) == 0,
          "SCardReadCacheW with SCARD_AUTOALLOCATE (0x%08lx)", result);
    if (block != nullptr) SCardFreeMemory(host.context, block);
    length = sizeof back;
    check(SCardReadCacheA(host.context, &card, 8, name, back, &length) == SCARD_W_CACHE_ITEM_STALE,
          "SCardReadCacheA with another freshness: stale");
    char other[] = "other";
    check(SCardReadCacheA(host.context, &card, 7, other, back, &length) == SCARD_W_CACHE_ITEM_NOT_FOUND,
          "SCardReadCacheA of a name never written: not found");
    check(SCardReadCacheA(host.context, nullptr, 7, name, back, &length) == SCARD_E_INVALID_PARAMETER &&
              SCardWriteCacheW(host.context, &card, 7, nullptr, data, 5) == SCARD_E_INVALID_PARAMETER,
          "the cache calls without a card id or a name");
}

void events(Host& host)
{
    const auto started = bound<decltype(&::SCardAccessStartedEvent)>(host, "SCardAccessStartedEvent");
    const auto releaseStarted = bound<decltype(&::SCardReleaseStartedEvent)>(host, "SCardReleaseStartedEvent");
    const auto newReader = bound<AccessEvent>(host, "SCardAccessNewReaderEvent");
    const auto releaseNewReader = bound<ReleaseEvent>(host, "SCardReleaseNewReaderEvent");
    const auto releaseAll = bound<ReleaseEvent>(host, "SCardReleaseAllEvents");
    // Released before any access: nothing happens.
    releaseStarted();
    releaseNewReader();
    HANDLE first = started();
    HANDLE second = started();
    check(first != nullptr && first == second, "SCardAccessStartedEvent hands out one event");
    check(first != nullptr && WaitForSingleObject(first, 30000) == WAIT_OBJECT_0,
          "the started event is set: the racks are up");
    releaseStarted();
    check(WaitForSingleObject(first, 0) == WAIT_OBJECT_0, "the event stays open while a holder is left");
    releaseStarted();
    HANDLE arrivals = newReader();
    check(arrivals != nullptr && WaitForSingleObject(arrivals, 30000) == WAIT_OBJECT_0,
          "SCardAccessNewReaderEvent: set once the racks are up");
    releaseAll();
    HANDLE again = started();
    check(again != nullptr && WaitForSingleObject(again, 30000) == WAIT_OBJECT_0,
          "after SCardReleaseAllEvents a new access gets a set event");
    releaseStarted();
}

void deviceIds(Host& host)
{
    const auto typeA = bound<DeviceTypeIdA>(host, "SCardGetDeviceTypeIdA");
    const auto typeW = bound<DeviceTypeIdW>(host, "SCardGetDeviceTypeIdW");
    DWORD type = kPattern;
    LONG result = typeA(host.context, kCardReader, &type);
    check(result == SCARD_S_SUCCESS && type == SCARD_READER_TYPE_USB, "SCardGetDeviceTypeIdA: USB (0x%08lx, 0x%lx)",
          result, type);
    type = kPattern;
    result = typeW(host.context, kCardReaderW, &type);
    check(result == SCARD_S_SUCCESS && type == SCARD_READER_TYPE_USB, "SCardGetDeviceTypeIdW: USB (0x%08lx)", result);
    check(typeA(host.context, kNoReader, &type) == SCARD_E_UNKNOWN_READER &&
              typeW(host.context, kCardReaderW, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardGetDeviceTypeId for an unknown reader and without an out value");

    const auto idA = bound<InstanceIdA>(host, "SCardGetReaderDeviceInstanceIdA");
    const auto idW = bound<InstanceIdW>(host, "SCardGetReaderDeviceInstanceIdW");
    wchar_t wideId[64];
    DWORD length = 64;
    result = idW(host.context, kCardReaderW, wideId, &length);
    check(result == SCARD_S_SUCCESS && length == 15 && std::wstring(wideId) == L"TESSEL\\RACK\\W1",
          "SCardGetReaderDeviceInstanceIdW: one id per rack (0x%08lx, %lu)", result, length);
    char narrowId[64];
    length = 4;
    check(idA(host.context, "Tessel W1 R1", narrowId, &length) == SCARD_E_INSUFFICIENT_BUFFER && length == 15,
          "SCardGetReaderDeviceInstanceIdA with a short buffer is told the size");
    length = 64;
    result = idA(host.context, "Tessel W1 R1", narrowId, &length);
    check(result == SCARD_S_SUCCESS && std::string(narrowId) == "TESSEL\\RACK\\W1",
          "the same id for another slot of the rack");
    length = 64;
    check(idA(host.context, kNoReader, narrowId, &length) == SCARD_E_UNKNOWN_READER,
          "SCardGetReaderDeviceInstanceIdA for an unknown reader");

    const auto SCardListReadersWithDeviceInstanceIdA = bound<InstanceIdA>(host, "SCardListReadersWithDeviceInstanceIdA");
    const auto SCardListReadersWithDeviceInstanceIdW = bound<InstanceIdW>(host, "SCardListReadersWithDeviceInstanceIdW");
    BIND(SCardFreeMemory);
    char readers[64];
    length = sizeof readers;
    result = SCardListReadersWithDeviceInstanceIdA(host.context, "TESSEL\\RACK\\W1", readers, &length);
    check(result == SCARD_S_SUCCESS && length == 40 &&
              std::string(readers, 40) == std::string("Tessel W1 R1\0Tessel W1 R2\0Tessel W1 R3\0", 40),
          "SCardListReadersWithDeviceInstanceIdA: the rack's readers (0x%08lx, %lu)", result, length);
    LPWSTR block = nullptr;
    length = SCARD_AUTOALLOCATE;
    result = SCardListReadersWithDeviceInstanceIdW(host.context, L"TESSEL\\RACK\\W2", reinterpret_cast<LPWSTR>(&block),
                                                   &length);
    check(result == SCARD_S_SUCCESS && block != nullptr && length == 27 &&
              std::wstring(block, 27) == std::wstring(L"Tessel W2 R1\0Tessel W2 R2\0", 27),
          "SCardListReadersWithDeviceInstanceIdW with SCARD_AUTOALLOCATE (0x%08lx)", result);
    if (block != nullptr) SCardFreeMemory(host.context, block);
    length = kPattern;
    check(SCardListReadersWithDeviceInstanceIdA(host.context, "TESSEL\\RACK\\W9", nullptr, &length) ==
                  SCARD_E_NO_READERS_AVAILABLE &&
              length == 1,
          "SCardListReadersWithDeviceInstanceIdA for an unknown device");

    const auto iconA = bound<ReaderIconA>(host, "SCardGetReaderIconA");
    const auto iconW = bound<ReaderIconW>(host, "SCardGetReaderIconW");
    BYTE icon[16];
    length = sizeof icon;
    check(iconA(host.context, kCardReader, icon, &length) == kUnsupported &&
              iconW(host.context, kCardReaderW, nullptr, &length) == kUnsupported,
          "SCardGetReaderIcon: the slots have no icon");
    check(iconW(host.context, L"Tessel W9 R9", icon, &length) == SCARD_E_UNKNOWN_READER,
          "SCardGetReaderIconW for an unknown reader");
}

void transmitCountStateAndTheRest(Host& host)
{
    BIND(SCardConnectW);
    BIND(SCardDisconnect);
    BIND(SCardTransmit);
    BIND(SCardGetTransmitCount);
    BIND(SCardState);
    SCARDHANDLE card = 0;
    DWORD active = kPattern;
    LONG result = SCardConnectW(host.context, kCardReaderW, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active);
    if (!check(result == SCARD_S_SUCCESS, "a connection for the transmit count (0x%08lx)", result)) return;
    DWORD before = kPattern;
    result = SCardGetTransmitCount(card, &before);
    check(result == SCARD_S_SUCCESS && before != kPattern, "SCardGetTransmitCount writes the count (0x%08lx)", result);
    const BYTE command[] = {0x00, 0xA4, 0x04, 0x00, 0x00};
    BYTE answer[64];
    DWORD length = sizeof answer;
    result = SCardTransmit(card, host.api.g_rgSCardT1Pci, command, sizeof command, nullptr, answer, &length);
    DWORD after = kPattern;
    check(result == SCARD_S_SUCCESS && SCardGetTransmitCount(card, &after) == SCARD_S_SUCCESS && after == before + 1,
          "each transmit counts once (%lu, then %lu)", before, after);
    check(SCardGetTransmitCount(card + 0x100, &after) == SCARD_E_INVALID_HANDLE &&
              SCardGetTransmitCount(card, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardGetTransmitCount for an unknown handle and without an out value");

    DWORD state = kPattern, protocol = kPattern, atrLength = 32;
    BYTE atr[32];
    std::memset(atr, kPatternByte, sizeof atr);
    result = SCardState(card, &state, &protocol, atr, &atrLength);
    check(result == SCARD_S_SUCCESS && state != kPattern && protocol == SCARD_PROTOCOL_T1 && atrLength == 3 &&
              std::vector<BYTE>(atr, atr + 3) == kAtrT1,
          "SCardState answers as SCardStatus (0x%08lx, state 0x%lx)", result, state);
    check(SCardState(card + 0x100, &state, &protocol, atr, &atrLength) == SCARD_E_INVALID_HANDLE,
          "SCardState for an unknown handle");
    SCardDisconnect(card, SCARD_LEAVE_CARD);

    const auto audit = bound<Audit>(host, "SCardAudit");
    check(audit(host.context, 0) == SCARD_S_SUCCESS && audit(0, 0xFFFF) == SCARD_S_SUCCESS, "SCardAudit takes an event");
    const auto classInstall = bound<ClassInstaller>(host, "ClassInstall32");
    check(classInstall(0, nullptr, nullptr) == 0xE000020E, "ClassInstall32 lets the installer do its default");
    const auto dialogError = reinterpret_cast<LONG(WINAPI*)(void)>(
        reinterpret_cast<void*>(GetProcAddress(host.library, "SCardDlgExtendedError")));
    check(dialogError != nullptr && dialogError() == SCARD_S_SUCCESS, "SCardDlgExtendedError: no dialog error");
}

// The original calls, each with good and bad arguments and its
// out-parameters pre-filled.
void originalCalls(Host& host)
{
    BIND(SCardEstablishContext);
    BIND(SCardReleaseContext);
    BIND(SCardIsValidContext);
    BIND(SCardBeginTransaction);
    BIND(SCardEndTransaction);
    BIND(SCardConnectA);
    BIND(SCardConnectW);
    BIND(SCardReconnect);
    BIND(SCardDisconnect);
    BIND(SCardStatusW);
    BIND(SCardTransmit);
    BIND(SCardListReadersW);
    BIND(SCardGetStatusChangeA);
    BIND(SCardFreeMemory);
    BIND(SCardCancel);

    SCARDCONTEXT context = kPattern;
    LONG result = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context);
    check(result == SCARD_S_SUCCESS && context != kPattern && SCardIsValidContext(context) == SCARD_S_SUCCESS,
          "SCardEstablishContext writes the context (0x%08lx)", result);
    check(SCardReleaseContext(context) == SCARD_S_SUCCESS && SCardCancel(context) == SCARD_E_INVALID_HANDLE &&
              SCardIsValidContext(context) == SCARD_E_INVALID_HANDLE,
          "SCardReleaseContext, then the released context refused");
    context = kPattern;
    result = SCardEstablishContext(77, nullptr, nullptr, &context);
    check(result == SCARD_E_INVALID_VALUE && context == 0, "SCardEstablishContext with a bad scope writes 0 (0x%08lx)",
          result);
    check(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardEstablishContext without an out value");

    SCARDHANDLE card = 0;
    DWORD active = kPattern;
    check(SCardConnectA(host.context, kNoReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active) ==
                  SCARD_E_READER_UNAVAILABLE &&
              SCardConnectW(host.context, nullptr, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &active) ==
                  SCARD_E_INVALID_PARAMETER,
          "SCardConnect to an unknown reader and without a name");
    result = SCardConnectW(host.context, kCardReaderW, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card,
                           &active);
    if (!check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T1, "SCardConnectW writes the protocol (0x%08lx)",
               result))
        return;
    check(SCardBeginTransaction(card) == SCARD_S_SUCCESS && SCardEndTransaction(card, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS &&
              SCardEndTransaction(card, SCARD_LEAVE_CARD) == SCARD_E_NOT_TRANSACTED &&
              SCardBeginTransaction(0) == SCARD_E_INVALID_HANDLE,
          "a transaction begins and ends once; no handle, no transaction");

    wchar_t name[32];
    std::fill(name, name + 32, wchar_t(0xA5A5));
    DWORD nameLength = 32, state = kPattern, protocol = kPattern, atrLength = 32;
    BYTE atr[32];
    result = SCardStatusW(card, name, &nameLength, &state, &protocol, atr, &atrLength);
    check(result == SCARD_S_SUCCESS && nameLength == 13 && std::wstring(name) == kCardReaderW && state != kPattern &&
              protocol == SCARD_PROTOCOL_T1 && atrLength == 3,
          "SCardStatusW writes every output (0x%08lx)", result);
    nameLength = 4;
    check(SCardStatusW(card, name, &nameLength, &state, &protocol, nullptr, &atrLength) == SCARD_E_INSUFFICIENT_BUFFER &&
              nameLength == 13,
          "SCardStatusW with a short name buffer is told the size");

    const BYTE command[] = {0x00, 0xA4, 0x04, 0x00, 0x00};
    BYTE answer[64];
    DWORD length = sizeof answer;
    check(SCardTransmit(card, host.api.g_rgSCardT1Pci, nullptr, 5, nullptr, answer, &length) ==
                  SCARD_E_INVALID_PARAMETER &&
              SCardTransmit(card, host.api.g_rgSCardT1Pci, command, sizeof command, nullptr, answer, nullptr) ==
                  SCARD_E_INVALID_PARAMETER,
          "SCardTransmit without a command or a length");
    active = kPattern;
    result = SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active);
    check(result == SCARD_S_SUCCESS && active == SCARD_PROTOCOL_T1, "SCardReconnect writes the protocol (0x%08lx)",
          result);
    check(SCardDisconnect(card, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS, "SCardDisconnect");

    wchar_t readers[8];
    length = 8;
    check(SCardListReadersW(host.context, nullptr, readers, &length) == SCARD_E_INSUFFICIENT_BUFFER && length == 66,
          "SCardListReadersW with a short buffer is told the size");
    check(SCardListReadersW(host.context, nullptr, readers, nullptr) == SCARD_E_INVALID_PARAMETER,
          "SCardListReadersW without a length");

    SCARD_READERSTATEA states[1] = {};
    states[0].szReader = kNoReader;
    check(SCardGetStatusChangeA(host.context, 0, states, 1) == SCARD_E_UNKNOWN_READER,
          "SCardGetStatusChangeA for an unknown reader");
    states[0].szReader = nullptr;
    check(SCardGetStatusChangeA(host.context, 0, states, 1) == SCARD_E_INVALID_PARAMETER,
          "SCardGetStatusChangeA without a reader name");
    check(SCardFreeMemory(host.context, nullptr) == SCARD_S_SUCCESS, "SCardFreeMemory of nothing");
}

}  // namespace

int runApiSurfaceCases(Host& host)
{
    std::printf("-- the whole published surface\n");
    if (!publishedNamesBind(host)) return 1;
    originalCalls(host);
    attributesAndControl(host);
    readerGroups(host);
    cardTypes(host);
    cache(host);
    events(host);
    deviceIds(host);
    transmitCountStateAndTheRest(host);
    return 0;
}
