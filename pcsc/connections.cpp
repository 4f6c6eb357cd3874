// Card connections: SCardConnect, SCardReconnect and SCardDisconnect. Each
// connect makes a connection of its own with a fresh handle
// (connection_table.h), which joins a card that is already powered and
// otherwise powers it: the slot is told which protocol to use and the call
// waits for its answer (card_power.h).
#include <cstdint>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/api_text.h"
#include "pcsc/connection_table.h"
#include "pcsc/lookups.h"
#include "pcsc/winscard_api.h"
#include "reader/protocol_walk.h"
#include "reader/reader.h"

namespace {

constexpr DWORD kBothProtocols = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;

// Protocol bits a caller may name. The slots speak T=0 and T=1; the raw
// protocol (and T=15 where the platform names it) is a valid request that
// no card here can meet.
DWORD knownProtocolBits()
{
    DWORD known = kBothProtocols | SCARD_PROTOCOL_RAW;
#ifdef SCARD_PROTOCOL_T15
    known |= SCARD_PROTOCOL_T15;
#endif
#ifdef SCARD_PROTOCOL_DEFAULT
    known |= SCARD_PROTOCOL_DEFAULT;
#endif
    return known;
}

bool validShareMode(DWORD shareMode)
{
    return shareMode == SCARD_SHARE_EXCLUSIVE || shareMode == SCARD_SHARE_SHARED || shareMode == SCARD_SHARE_DIRECT;
}

// A direct connection may name no protocol; any other needs at least one.
bool validProtocols(DWORD shareMode, DWORD preferred)
{
    if ((preferred & ~knownProtocolBits()) != 0) return false;
    return shareMode == SCARD_SHARE_DIRECT || preferred != 0;
}

// The protocol choice of a connect that powers the card. Both T=0 and T=1
// allowed (or the platform's default): the ATR's first protocol, 0 for an
// ATR that names none. One of them: it must be among the ATR's protocols.
bool chooseProtocol(Reader& reader, DWORD preferred, DWORD& active)
{
    const OfferedProtocols offered = offeredProtocols(reader.atrValue());
    // An ATR that names no protocol leaves the reader's mask as it was, so
    // a request is then tested against the protocols of an earlier card.
    if (offered.mask != 0) {
        reader.setProtocolMask(offered.mask);
        logWrite("atr says " + decimalText(offered.first) + "\n");
    }
    DWORD wanted = preferred & kBothProtocols;
#ifdef SCARD_PROTOCOL_DEFAULT
    if ((preferred & SCARD_PROTOCOL_DEFAULT) != 0) wanted = kBothProtocols;
#endif
    if (wanted == kBothProtocols) {
        active = offered.first;
        return true;
    }
    if (wanted == 0) return false;
    const uint32_t mask = reader.protocolMask();
    if ((mask & wanted) != wanted) return false;
    active = wanted;
    return true;
}

// Reset, unpower and eject all send the selection again: it is the one
// message a slot has for any of them.
bool cardActionOf(DWORD disposition, connection_table::CardAction& action)
{
    switch (disposition) {
    case SCARD_LEAVE_CARD: action = connection_table::CardAction::leave; return true;
    case SCARD_RESET_CARD:
    case SCARD_UNPOWER_CARD:
    case SCARD_EJECT_CARD: action = connection_table::CardAction::reset; return true;
    default: return false;
    }
}


// The two forms run the same steps and differ in their character type and
// their traces; a null text means that the form writes no trace there.
template <typename Char>
struct ConnectForm;

template <>
struct ConnectForm<char> {
    static constexpr const char* entry = "SCardConnectA: ";
    static constexpr const char* gotRack = "Got rack\n";
    static constexpr const char* gotReader = "Got reader\n";
    static constexpr const char* noReader = "No Reader\n";
    static constexpr const char* noCard = "No card\n";
    // Both protocols asked for; any other request is traced by number.
    static constexpr const char* bothProtocols = "Protocol unspecified\n";
    static constexpr const char* requestedPrefix = "Requested protocol is ";
    static constexpr const char* connected = nullptr;
    static constexpr const char* activePrefix = nullptr;

    static void traceEntry(const std::string& text) { logWrite(text); }
};

template <>
struct ConnectForm<wchar_t> {
    static constexpr const char* entry = "SCardConnectW: ";
    static constexpr const char* gotRack = nullptr;
    static constexpr const char* gotReader = nullptr;
    static constexpr const char* noReader = nullptr;
    static constexpr const char* noCard = nullptr;
    static constexpr const char* bothProtocols = nullptr;
    static constexpr const char* requestedPrefix = "pref prot is ";
    static constexpr const char* connected = "Connected\n";
    static constexpr const char* activePrefix = "active is ";

    // The library's only wide trace.
    static void traceEntry(const std::wstring& text) { logWriteWide(text); }
};

void traceIfAny(const char* text)
{
    if (text != nullptr) logWrite(text);
}

void traceNumberIfAny(const char* prefix, DWORD value)
{
    if (prefix != nullptr) logWrite(prefix + decimalText(static_cast<uint32_t>(value)) + "\n");
}

// szReader, phCard and pdwActiveProtocol are the caller's to supply; a null
// among them is refused after the entry trace instead of written through.
// Outputs are written only on success.
template <typename Char>
LONG connectCard(SCARDCONTEXT context, const Char* szReader, DWORD shareMode, DWORD preferred, LPSCARDHANDLE phCard,
                 LPDWORD pdwActiveProtocol)
{
    using Form = ConnectForm<Char>;
    std::basic_string<Char> entry = textAs<Char>(std::string(Form::entry));
    if (szReader != nullptr) entry += szReader;
    entry.push_back(Char('\n'));
    Form::traceEntry(entry);
    if (szReader == nullptr || phCard == nullptr || pdwActiveProtocol == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (!connection_table::isLiveContext(context)) return SCARD_E_INVALID_HANDLE;

    const RackReader found = findReaderByName(szReader);
    if (found.rack != nullptr) {
        traceIfAny(Form::gotRack);
        traceIfAny(Form::gotReader);
    }
    // A reader whose rack is lost, or whose slot left the slot map, is
    // refused at once, as one that was never there.
    if (found.reader == nullptr || !found.reader->available()) {
        traceIfAny(Form::noReader);
        return SCARD_E_READER_UNAVAILABLE;
    }

    if (!validShareMode(shareMode) || !validProtocols(shareMode, preferred)) return SCARD_E_INVALID_VALUE;
    Reader* reader = found.reader;
    if (shareMode != SCARD_SHARE_DIRECT && reader->atrLength() == 0) {
        traceIfAny(Form::noCard);
        // A mute card is in the slot but does not answer.
        return reader->cardState() == kStateMuteCard ? SCARD_W_UNRESPONSIVE_CARD : SCARD_E_NO_SMARTCARD;
    }
    if (Form::bothProtocols != nullptr && preferred == kBothProtocols)
        logWrite(Form::bothProtocols);
    else
        traceNumberIfAny(Form::requestedPrefix, preferred);

    connection_table::ConnectRequest request;
    request.context = context;
    request.rack = found.rack;
    request.reader = reader;
    request.shareMode = shareMode;
    request.preferred = preferred;
    SCARDHANDLE handle = 0;
    DWORD active = 0;
    const LONG result = connection_table::connect(request, chooseProtocol, handle, active);
    if (result != SCARD_S_SUCCESS) return result;
    *phCard = handle;
    *pdwActiveProtocol = active;
    traceIfAny(Form::connected);
    traceNumberIfAny(Form::activePrefix, active);
    return SCARD_S_SUCCESS;
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardConnectA(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode,
                                                   DWORD dwPreferredProtocols, LPSCARDHANDLE phCard,
                                                   LPDWORD pdwActiveProtocol)
{
    return connectCard(hContext, szReader, dwShareMode, dwPreferredProtocols, phCard, pdwActiveProtocol);
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardConnectW(SCARDCONTEXT hContext, LPCWSTR szReader, DWORD dwShareMode,
                                                   DWORD dwPreferredProtocols, LPSCARDHANDLE phCard,
                                                   LPDWORD pdwActiveProtocol)
{
    return connectCard(hContext, szReader, dwShareMode, dwPreferredProtocols, phCard, pdwActiveProtocol);
}

// Leave joins the card (or powers it if it is not powered); reset and
// unpower power it again, and every other handle to it is then reset. The
// protocol is negotiated anew from dwPreferredProtocols, and the share mode
// changes under the connect's rules. The handle's card warning ends here.
extern "C" TESSEL_EXPORT LONG WINAPI SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols,
                                                    DWORD dwInitialization, LPDWORD pdwActiveProtocol)
{
    logWrite("SCardReconnect: " + decimalText(static_cast<uint32_t>(dwInitialization)) + "\n");
    connection_table::CardAction action;
    if (!cardActionOf(dwInitialization, action)) return SCARD_E_INVALID_VALUE;
    if (!validShareMode(dwShareMode) || !validProtocols(dwShareMode, dwPreferredProtocols))
        return SCARD_E_INVALID_VALUE;
    if (pdwActiveProtocol == nullptr) return SCARD_E_INVALID_PARAMETER;
    connection_table::Connection connection;
    if (!connection_table::find(hCard, connection)) return SCARD_E_INVALID_HANDLE;
    logWrite(action == connection_table::CardAction::leave ? std::string("leave card\n")
                                                           : connection.reader->name + " reset\n");
    DWORD active = 0;
    const LONG result =
        connection_table::reconnect(hCard, dwShareMode, dwPreferredProtocols, action, chooseProtocol, active);
    if (result == SCARD_S_SUCCESS) *pdwActiveProtocol = active;
    return result;
}

// Ends the handle. Reset, unpower and eject send the card its selection
// again and wait for the slot's answer; leave tells the slot nothing.
extern "C" TESSEL_EXPORT LONG WINAPI SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition)
{
    logWrite("SCardDisconnect: " + decimalText(static_cast<uint32_t>(dwDisposition)) + ", handle: " +
             decimalText(static_cast<int32_t>(hCard)) + "\n");
    connection_table::CardAction action;
    if (!cardActionOf(dwDisposition, action)) return SCARD_E_INVALID_VALUE;
    connection_table::Connection connection;
    if (!connection_table::find(hCard, connection)) return SCARD_E_INVALID_HANDLE;
    logWrite(action == connection_table::CardAction::leave ? std::string("leave card\n")
                                                           : connection.reader->name + " reset\n");
    return connection_table::disconnect(hCard, action);
}
