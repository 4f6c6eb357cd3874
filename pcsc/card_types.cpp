// Card types: an in-process table of the types a host introduces, with the
// ATR and mask that recognise each, its primary provider, its interfaces
// and its provider names; and the calls that find the cards in the readers
// by those ATRs. Nothing is kept past the process: the table starts empty,
// as the system's own is for a host that has introduced nothing.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "pcsc/api_text.h"
#include "pcsc/call_trace.h"
#include "pcsc/host_buffer.h"
#include "pcsc/lookups.h"
#include "pcsc/winscard_api.h"
#include "reader/atr.h"
#include "reader/reader.h"

namespace {

// The provider slots of key storage and of card modules, which the
// platform's header lacks.
constexpr DWORD kProviderKsp = 3;
constexpr DWORD kProviderCardModule = 0x80000001;
// An ATR is at most this long; a mask covers as many bytes.
constexpr DWORD kLongestAtr = 36;

struct CardType {
    GUID primaryProvider{};
    std::vector<GUID> interfaces;
    std::vector<BYTE> atr;
    std::vector<BYTE> mask;
    std::map<DWORD, std::wstring> providerNames;
};

struct CardTypeTable {
    std::mutex lock;
    // Names compare as the host gave them.
    std::map<std::wstring, CardType> types;
};

CardTypeTable& table()
{
    static CardTypeTable instance;
    return instance;
}

bool sameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Whether `atr` is recognised by `want` under `mask`: the same length, and
// every bit the mask keeps the same.
bool atrMatches(const BYTE* atr, DWORD atrLength, const BYTE* want, const BYTE* mask, DWORD wantLength)
{
    if (atrLength != wantLength) return false;
    for (DWORD i = 0; i < atrLength; ++i)
        if ((atr[i] & mask[i]) != (want[i] & mask[i])) return false;
    return true;
}

bool recognises(const CardType& type, const BYTE* atr, DWORD atrLength)
{
    return atrMatches(atr, atrLength, type.atr.data(), type.mask.data(), static_cast<DWORD>(type.atr.size()));
}

// The length of an ATR that comes without one, read from its own
// structure (ISO 7816-3): TS, T0, the interface bytes that each Y nibble
// announces, the historical bytes T0 counts, and TCK when a protocol other
// than T=0 is named. No byte past the one that ends the structure is read,
// and none past kLongestAtr; 0 for a structure longer than that.
DWORD atrLengthOf(const BYTE* atr)
{
    DWORD at = 1;  // T0
    const DWORD historical = atr[1] & 0x0F;
    unsigned announced = atr[1] >> 4;
    bool checkByte = false;
    for (;;) {
        at += (announced & 1) + ((announced >> 1) & 1) + ((announced >> 2) & 1) + ((announced >> 3) & 1);
        if (at >= kLongestAtr) return 0;
        if ((announced & 8) == 0) break;
        const BYTE td = atr[at];  // the last byte of this group
        if ((td & 0x0F) != 0) checkByte = true;
        announced = td >> 4;
    }
    const DWORD length = at + 1 + historical + (checkByte ? 1 : 0);
    return length <= kLongestAtr ? length : 0;
}

template <typename Char>
LONG introduce(const char* stem, const Char* szCardName, LPCGUID pguidPrimaryProvider, LPCGUID rgguidInterfaces,
               DWORD dwInterfaceCount, LPCBYTE pbAtr, LPCBYTE pbAtrMask, DWORD cbAtrLen)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szCardName == nullptr || *szCardName == Char(0) || pbAtr == nullptr || cbAtrLen == 0 ||
        cbAtrLen > kLongestAtr || (dwInterfaceCount != 0 && rgguidInterfaces == nullptr))
        return traceResult(call, SCARD_E_INVALID_PARAMETER);
    CardType type;
    if (pguidPrimaryProvider != nullptr) type.primaryProvider = *pguidPrimaryProvider;
    type.interfaces.assign(rgguidInterfaces, rgguidInterfaces + dwInterfaceCount);
    type.atr.assign(pbAtr, pbAtr + cbAtrLen);
    type.mask.assign(cbAtrLen, 0xFF);
    if (pbAtrMask != nullptr) type.mask.assign(pbAtrMask, pbAtrMask + cbAtrLen);
    CardTypeTable& cards = table();
    std::lock_guard<std::mutex> guard(cards.lock);
    // Introducing a name again replaces what it stood for.
    cards.types[wideText(szCardName)] = type;
    return traceResult(call, SCARD_S_SUCCESS);
}

template <typename Char>
LONG forget(const char* stem, const Char* szCardName)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szCardName == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    CardTypeTable& cards = table();
    std::lock_guard<std::mutex> guard(cards.lock);
    const bool known = cards.types.erase(wideText(szCardName)) != 0;
    return traceResult(call, known ? SCARD_S_SUCCESS : SCARD_E_UNKNOWN_CARD);
}

// The names of the types that recognise the ATR (every type without one)
// and offer every interface asked for.
template <typename Char>
LONG listCards(const char* stem, LPCBYTE pbAtr, LPCGUID rgguidInterfaces, DWORD cguidInterfaceCount, Char* mszCards,
               LPDWORD pcchCards)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (pcchCards == nullptr || (cguidInterfaceCount != 0 && rgguidInterfaces == nullptr))
        return traceResult(call, SCARD_E_INVALID_PARAMETER);
    // The host's ATR carries no length of its own.
    const DWORD atrLength = pbAtr != nullptr ? atrLengthOf(pbAtr) : 0;
    if (pbAtr != nullptr && atrLength == 0) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    std::vector<std::wstring> names;
    {
        CardTypeTable& cards = table();
        std::lock_guard<std::mutex> guard(cards.lock);
        for (const auto& [name, type] : cards.types) {
            // Only as many of the host's bytes are compared as the type's
            // ATR has, and never more than the ATR's structure claims; an
            // ATR without its check byte still matches its type.
            const DWORD typeLength = static_cast<DWORD>(type.atr.size());
            if (pbAtr != nullptr && (typeLength > atrLength || !recognises(type, pbAtr, typeLength))) continue;
            const bool offersAll = std::all_of(rgguidInterfaces, rgguidInterfaces + cguidInterfaceCount,
                                               [&type](const GUID& wanted) {
                                                   return std::any_of(type.interfaces.begin(), type.interfaces.end(),
                                                                      [&](const GUID& g) { return sameGuid(g, wanted); });
                                               });
            if (offersAll) names.push_back(name);
        }
    }
    const std::basic_string<Char> list = multiString<Char>(names);
    return traceResult(call, deliverElements(list.data(), static_cast<DWORD>(list.size()), mszCards, pcchCards));
}

// A GUID as the registry writes it: {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}.
std::wstring guidText(const GUID& g)
{
    char text[40];
    std::snprintf(text, sizeof text, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2],
                  g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return wideText(text);
}

bool knownProvider(DWORD id)
{
    return id == SCARD_PROVIDER_PRIMARY || id == SCARD_PROVIDER_CSP || id == kProviderKsp ||
           id == kProviderCardModule;
}

template <typename Char>
LONG getProviderName(const char* stem, const Char* szCardName, DWORD dwProviderId, Char* szProvider,
                     LPDWORD pcchProvider)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szCardName == nullptr || pcchProvider == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    if (!knownProvider(dwProviderId)) return traceResult(call, SCARD_E_INVALID_VALUE);
    std::wstring name;
    {
        CardTypeTable& cards = table();
        std::lock_guard<std::mutex> guard(cards.lock);
        auto type = cards.types.find(wideText(szCardName));
        if (type == cards.types.end()) return traceResult(call, SCARD_E_UNKNOWN_CARD);
        // The primary provider is its GUID, as text; the others are what
        // the host set.
        if (dwProviderId == SCARD_PROVIDER_PRIMARY) {
            name = guidText(type->second.primaryProvider);
        } else {
            auto set = type->second.providerNames.find(dwProviderId);
            if (set == type->second.providerNames.end()) return traceResult(call, SCARD_E_UNKNOWN_CARD);
            name = set->second;
        }
    }
    const std::basic_string<Char> text = textAs<Char>(name);
    return traceResult(call, deliverElements(text.c_str(), static_cast<DWORD>(text.size() + 1), szProvider,
                                             pcchProvider));
}

template <typename Char>
LONG setProviderName(const char* stem, const Char* szCardName, DWORD dwProviderId, const Char* szProvider)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szCardName == nullptr || szProvider == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    // The primary provider is the GUID given when the type was introduced.
    if (!knownProvider(dwProviderId) || dwProviderId == SCARD_PROVIDER_PRIMARY)
        return traceResult(call, SCARD_E_INVALID_VALUE);
    CardTypeTable& cards = table();
    std::lock_guard<std::mutex> guard(cards.lock);
    auto type = cards.types.find(wideText(szCardName));
    if (type == cards.types.end()) return traceResult(call, SCARD_E_UNKNOWN_CARD);
    type->second.providerNames[dwProviderId] = wideText(szProvider);
    return traceResult(call, SCARD_S_SUCCESS);
}

template <typename Char>
LONG listInterfaces(const char* stem, const Char* szCard, LPGUID pguidInterfaces, LPDWORD pcguidInterfaces)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szCard == nullptr || pcguidInterfaces == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    std::vector<GUID> interfaces;
    {
        CardTypeTable& cards = table();
        std::lock_guard<std::mutex> guard(cards.lock);
        auto type = cards.types.find(wideText(szCard));
        if (type == cards.types.end()) return traceResult(call, SCARD_E_UNKNOWN_CARD);
        interfaces = type->second.interfaces;
    }
    return traceResult(call, deliverElements(interfaces.data(), static_cast<DWORD>(interfaces.size()),
                                             pguidInterfaces, pcguidInterfaces));
}

template <typename Char>
LONG getProviderId(const char* stem, const Char* szCard, LPGUID pguidProviderId)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (szCard == nullptr || pguidProviderId == nullptr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    CardTypeTable& cards = table();
    std::lock_guard<std::mutex> guard(cards.lock);
    auto type = cards.types.find(wideText(szCard));
    if (type == cards.types.end()) return traceResult(call, SCARD_E_UNKNOWN_CARD);
    *pguidProviderId = type->second.primaryProvider;
    return traceResult(call, SCARD_S_SUCCESS);
}

// Fills each reader's record as a status change would, with
// SCARD_STATE_ATRMATCH where `matches` accepts the card's ATR.
template <typename State, typename Match>
LONG locate(State* rgReaderStates, DWORD cReaders, Match matches)
{
    for (DWORD i = 0; i < cReaders; ++i) {
        State& state = rgReaderStates[i];
        const RackReader found = findReaderByName(state.szReader);
        if (found.reader == nullptr) return SCARD_E_UNKNOWN_READER;
        BYTE atr[Atr::capacity] = {};
        const DWORD length = found.reader->atr(atr);
        const bool present = (found.reader->cardState() & kStateCard) != 0;
        DWORD event = present ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY;
        if (present && matches(atr, length)) event |= SCARD_STATE_ATRMATCH;
        if ((event & ~SCARD_STATE_CHANGED) != (state.dwCurrentState & ~SCARD_STATE_CHANGED)) event |= SCARD_STATE_CHANGED;
        state.dwEventState = event;
        state.cbAtr = std::min<DWORD>(length, sizeof state.rgbAtr);
        std::memcpy(state.rgbAtr, atr, state.cbAtr);
    }
    return SCARD_S_SUCCESS;
}

template <typename Char, typename State>
LONG locateCards(const char* stem, const Char* mszCards, State* rgReaderStates, DWORD cReaders)
{
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if (mszCards == nullptr || (cReaders != 0 && rgReaderStates == nullptr))
        return traceResult(call, SCARD_E_INVALID_PARAMETER);
    std::vector<CardType> wanted;
    {
        CardTypeTable& cards = table();
        std::lock_guard<std::mutex> guard(cards.lock);
        for (const std::wstring& name : namesOf(mszCards)) {
            auto type = cards.types.find(name);
            if (type == cards.types.end()) return traceResult(call, SCARD_E_UNKNOWN_CARD);
            wanted.push_back(type->second);
        }
    }
    return traceResult(call, locate(rgReaderStates, cReaders, [&wanted](const BYTE* atr, DWORD length) {
                           return std::any_of(wanted.begin(), wanted.end(),
                                              [&](const CardType& type) { return recognises(type, atr, length); });
                       }));
}

template <typename State>
LONG locateByAtr(const char* stem, LPSCARD_ATRMASK rgAtrMasks, DWORD cAtrs, State* rgReaderStates, DWORD cReaders)
{
    using Char = std::remove_const_t<std::remove_pointer_t<decltype(State::szReader)>>;
    const std::string call = formName<Char>(stem);
    traceEntry(call);
    if ((cAtrs != 0 && rgAtrMasks == nullptr) || (cReaders != 0 && rgReaderStates == nullptr))
        return traceResult(call, SCARD_E_INVALID_PARAMETER);
    for (DWORD i = 0; i < cAtrs; ++i)
        if (rgAtrMasks[i].cbAtr > kLongestAtr) return traceResult(call, SCARD_E_INVALID_PARAMETER);
    return traceResult(call, locate(rgReaderStates, cReaders, [=](const BYTE* atr, DWORD length) {
                           for (DWORD i = 0; i < cAtrs; ++i)
                               if (atrMatches(atr, length, rgAtrMasks[i].rgbAtr, rgAtrMasks[i].rgbMask,
                                              rgAtrMasks[i].cbAtr))
                                   return true;
                           return false;
                       }));
}

}  // namespace

extern "C" {

LONG WINAPI SCardIntroduceCardTypeA(SCARDCONTEXT hContext, LPCSTR szCardName, LPCGUID pguidPrimaryProvider,
                                    LPCGUID rgguidInterfaces, DWORD dwInterfaceCount, LPCBYTE pbAtr,
                                    LPCBYTE pbAtrMask, DWORD cbAtrLen)
{
    return introduce("SCardIntroduceCardType", szCardName, pguidPrimaryProvider, rgguidInterfaces,
                     dwInterfaceCount, pbAtr, pbAtrMask, cbAtrLen);
}

LONG WINAPI SCardIntroduceCardTypeW(SCARDCONTEXT hContext, LPCWSTR szCardName, LPCGUID pguidPrimaryProvider,
                                    LPCGUID rgguidInterfaces, DWORD dwInterfaceCount, LPCBYTE pbAtr,
                                    LPCBYTE pbAtrMask, DWORD cbAtrLen)
{
    return introduce("SCardIntroduceCardType", szCardName, pguidPrimaryProvider, rgguidInterfaces,
                     dwInterfaceCount, pbAtr, pbAtrMask, cbAtrLen);
}

LONG WINAPI SCardForgetCardTypeA(SCARDCONTEXT hContext, LPCSTR szCardName)
{
    return forget("SCardForgetCardType", szCardName);
}

LONG WINAPI SCardForgetCardTypeW(SCARDCONTEXT hContext, LPCWSTR szCardName)
{
    return forget("SCardForgetCardType", szCardName);
}

LONG WINAPI SCardListCardsA(SCARDCONTEXT hContext, LPCBYTE pbAtr, LPCGUID rgquidInterfaces, DWORD cguidInterfaceCount,
                            LPSTR mszCards, LPDWORD pcchCards)
{
    return listCards("SCardListCards", pbAtr, rgquidInterfaces, cguidInterfaceCount, mszCards, pcchCards);
}

LONG WINAPI SCardListCardsW(SCARDCONTEXT hContext, LPCBYTE pbAtr, LPCGUID rgquidInterfaces, DWORD cguidInterfaceCount,
                            LPWSTR mszCards, LPDWORD pcchCards)
{
    return listCards("SCardListCards", pbAtr, rgquidInterfaces, cguidInterfaceCount, mszCards, pcchCards);
}

LONG WINAPI SCardGetCardTypeProviderNameA(SCARDCONTEXT hContext, LPCSTR szCardName, DWORD dwProviderId,
                                          LPSTR szProvider, LPDWORD pcchProvider)
{
    return getProviderName("SCardGetCardTypeProviderName", szCardName, dwProviderId, szProvider, pcchProvider);
}

LONG WINAPI SCardGetCardTypeProviderNameW(SCARDCONTEXT hContext, LPCWSTR szCardName, DWORD dwProviderId,
                                          LPWSTR szProvider, LPDWORD pcchProvider)
{
    return getProviderName("SCardGetCardTypeProviderName", szCardName, dwProviderId, szProvider, pcchProvider);
}

LONG WINAPI SCardSetCardTypeProviderNameA(SCARDCONTEXT hContext, LPCSTR szCardName, DWORD dwProviderId,
                                          LPCSTR szProvider)
{
    return setProviderName("SCardSetCardTypeProviderName", szCardName, dwProviderId, szProvider);
}

LONG WINAPI SCardSetCardTypeProviderNameW(SCARDCONTEXT hContext, LPCWSTR szCardName, DWORD dwProviderId,
                                          LPCWSTR szProvider)
{
    return setProviderName("SCardSetCardTypeProviderName", szCardName, dwProviderId, szProvider);
}

LONG WINAPI SCardListInterfacesA(SCARDCONTEXT hContext, LPCSTR szCard, LPGUID pguidInterfaces,
                                 LPDWORD pcguidInterfaces)
{
    return listInterfaces("SCardListInterfaces", szCard, pguidInterfaces, pcguidInterfaces);
}

LONG WINAPI SCardListInterfacesW(SCARDCONTEXT hContext, LPCWSTR szCard, LPGUID pguidInterfaces,
                                 LPDWORD pcguidInterfaces)
{
    return listInterfaces("SCardListInterfaces", szCard, pguidInterfaces, pcguidInterfaces);
}

LONG WINAPI SCardGetProviderIdA(SCARDCONTEXT hContext, LPCSTR szCard, LPGUID pguidProviderId)
{
    return getProviderId("SCardGetProviderId", szCard, pguidProviderId);
}

LONG WINAPI SCardGetProviderIdW(SCARDCONTEXT hContext, LPCWSTR szCard, LPGUID pguidProviderId)
{
    return getProviderId("SCardGetProviderId", szCard, pguidProviderId);
}

LONG WINAPI SCardLocateCardsA(SCARDCONTEXT hContext, LPCSTR mszCards, LPSCARD_READERSTATEA rgReaderStates,
                              DWORD cReaders)
{
    return locateCards("SCardLocateCards", mszCards, rgReaderStates, cReaders);
}

LONG WINAPI SCardLocateCardsW(SCARDCONTEXT hContext, LPCWSTR mszCards, LPSCARD_READERSTATEW rgReaderStates,
                              DWORD cReaders)
{
    return locateCards("SCardLocateCards", mszCards, rgReaderStates, cReaders);
}

LONG WINAPI SCardLocateCardsByATRA(SCARDCONTEXT hContext, LPSCARD_ATRMASK rgAtrMasks, DWORD cAtrs,
                                   LPSCARD_READERSTATEA rgReaderStates, DWORD cReaders)
{
    return locateByAtr("SCardLocateCardsByATR", rgAtrMasks, cAtrs, rgReaderStates, cReaders);
}

LONG WINAPI SCardLocateCardsByATRW(SCARDCONTEXT hContext, LPSCARD_ATRMASK rgAtrMasks, DWORD cAtrs,
                                   LPSCARD_READERSTATEW rgReaderStates, DWORD cReaders)
{
    return locateByAtr("SCardLocateCardsByATR", rgAtrMasks, cAtrs, rgReaderStates, cReaders);
}

}  // extern "C"
