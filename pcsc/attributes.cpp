// Attributes and the small calls: SCardGetAttrib serves the attribute set
// that readers of the platform's PC/SC stack serve (the table below),
// SCardSetAttrib sets none of them, SCardControl answers the feature
// request of the reader with an empty list; SCardCancel ends the
// status-change waits of its context (the transaction calls are in
// transactions.cpp). Also the three exported protocol control records.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/api_text.h"
#include "pcsc/call_trace.h"
#include "pcsc/connection_table.h"
#include "pcsc/host_buffer.h"
#include "pcsc/lookups.h"
#include "pcsc/registry.h"
#include "pcsc/wait_cancel.h"
#include "pcsc/winscard_api.h"
#include "reader/atr.h"
#include "reader/reader.h"

// Hosts pass the addresses of these to SCardTransmit, which only tests the
// pointer; the library never reads them. The raw record carries 4, not the
// 0x00010000 that the platform's header gives the raw protocol.
extern "C" const SCARD_IO_REQUEST g_rgSCardT0Pci = {1, sizeof(SCARD_IO_REQUEST)};
extern "C" const SCARD_IO_REQUEST g_rgSCardT1Pci = {2, sizeof(SCARD_IO_REQUEST)};
extern "C" const SCARD_IO_REQUEST g_rgSCardRawPci = {4, sizeof(SCARD_IO_REQUEST)};

namespace {

// The vendor name always goes out as this many bytes: the text, its NUL
// and zeros behind it.
constexpr DWORD kVendorNameSize = 24;
// What the slots are, as the IFD type attribute names them.
constexpr char kIfdType[] = "Tessel Rack";
// The IFD version, 0xMMmmbbbb: this library's version, 1.2.3, as its
// banner gives it.
constexpr uint32_t kIfdVersion = 0x01020003;
// The channel id is 0xDDDDCCCC: DDDD the channel type (0x0020, USB), CCCC
// the slot's number on its rack.
constexpr uint32_t kUsbChannel = 0x0020u << 16;
// The slot's interface, as far as the host can see it: it speaks T=0 and
// T=1 at the ISO 7816-3 default clock and rate; the rack does not tell the
// library anything faster, so the maximum is the default. Left to the
// implementer: these are the honest minimum rather than a guess at the
// rack's hardware.
constexpr uint32_t kClockKhz = 3571;
constexpr uint32_t kDataRateBps = 9600;
constexpr uint32_t kMaxIfsd = 254;
// ICC presence: 2 is a card in the slot, 0 none.
constexpr BYTE kCardPresent = 2;
// The attribute id of the protocol types, which pcsc-lite's header names
// for its asynchronous protocols only.
constexpr DWORD kAttrProtocolTypes = SCARD_ATTR_VALUE(SCARD_CLASS_PROTOCOL, 0x0120);
// The control code of the request for the reader's features, in the
// platform's own encoding of control codes.
constexpr DWORD kGetFeatureRequest = SCARD_CTL_CODE(3400);

// The value of one attribute, or why there is none.
struct Attribute {
    LONG failure = SCARD_S_SUCCESS;
    std::vector<BYTE> bytes;
};

// A DWORD-valued attribute goes out as four bytes in the machine's order,
// as the published API documents it, on every platform.
Attribute number(uint32_t value)
{
    Attribute answer;
    answer.bytes.resize(sizeof value);
    std::memcpy(answer.bytes.data(), &value, sizeof value);
    return answer;
}

Attribute bytes(const void* data, size_t count)
{
    Attribute answer;
    const BYTE* first = static_cast<const BYTE*>(data);
    answer.bytes.assign(first, first + count);
    return answer;
}

Attribute failure(LONG result)
{
    Attribute answer;
    answer.failure = result;
    return answer;
}

Attribute vendorName()
{
    BYTE name[kVendorNameSize] = {};
    std::memcpy(name, g_vendorName.c_str(), std::min<size_t>(g_vendorName.size(), kVendorNameSize - 1));
    return bytes(name, sizeof name);
}

bool cardPresent(const Reader& reader) { return (reader.cardState() & kStateCard) != 0; }
bool cardAnswering(const Reader& reader) { return reader.cardState() == kStateCard; }

Attribute presence(const RackReader& found)
{
    const BYTE value = cardPresent(*found.reader) ? kCardPresent : 0;
    return bytes(&value, 1);
}

Attribute interfaceStatus(const RackReader& found)
{
    const BYTE active = cardAnswering(*found.reader) ? 1 : 0;
    return bytes(&active, 1);
}

// The reader's T number as the API's protocol, as the status query
// reports it; none without a card.
Attribute currentProtocol(const RackReader& found)
{
    const Reader& reader = *found.reader;
    if (!cardAnswering(reader)) return number(0);
    return number(reader.protocol() != 0 ? SCARD_PROTOCOL_T1 : SCARD_PROTOCOL_T0);
}

Attribute serialNumber(const RackReader& found)
{
    const std::string& serial = found.rack->serialNumber();
    return bytes(serial.c_str(), serial.size() + 1);
}

// The reader's name with its NUL, in bytes of the form's characters.
template <typename Char>
Attribute readerName(const RackReader& found)
{
    const std::basic_string<Char> name = textAs<Char>(found.reader->name);
    return bytes(name.c_str(), (name.size() + 1) * sizeof(Char));
}

Attribute channelId(const RackReader& found) { return number(kUsbChannel | (found.reader->address & 0xFFFFu)); }

// The attributes of the handle's reader.
const struct {
    DWORD id;
    Attribute (*read)(const RackReader&);
} kReaderAttributes[] = {
    {SCARD_ATTR_VENDOR_IFD_SERIAL_NO, serialNumber},
    {SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, readerName<char>},
    {SCARD_ATTR_DEVICE_SYSTEM_NAME_A, readerName<char>},
    {SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, readerName<wchar_t>},
    {SCARD_ATTR_DEVICE_SYSTEM_NAME_W, readerName<wchar_t>},
    {SCARD_ATTR_CHANNEL_ID, channelId},
    {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, currentProtocol},
    {SCARD_ATTR_ICC_PRESENCE, presence},
    {SCARD_ATTR_ICC_INTERFACE_STATUS, interfaceStatus},
};

// Every attribute but the ATR, which keeps traces of its own.
Attribute readAttribute(SCARDHANDLE hCard, DWORD dwAttrId)
{
    // These do not depend on the handle.
    switch (dwAttrId) {
    case SCARD_ATTR_VENDOR_NAME: return vendorName();
    case SCARD_ATTR_VENDOR_IFD_TYPE: return bytes(kIfdType, sizeof kIfdType);
    case SCARD_ATTR_VENDOR_IFD_VERSION: return number(kIfdVersion);
    case kAttrProtocolTypes: return number(SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
    case SCARD_ATTR_DEFAULT_CLK:
    case SCARD_ATTR_MAX_CLK: return number(kClockKhz);
    case SCARD_ATTR_DEFAULT_DATA_RATE:
    case SCARD_ATTR_MAX_DATA_RATE: return number(kDataRateBps);
    case SCARD_ATTR_MAX_IFSD: return number(kMaxIfsd);
    case SCARD_ATTR_CHARACTERISTICS: return number(0);     // no swallowing, eject or capture
    case SCARD_ATTR_POWER_MGMT_SUPPORT: return number(0);  // no power-down with a card inside
    default: break;
    }
    for (const auto& attribute : kReaderAttributes) {
        if (attribute.id != dwAttrId) continue;
        const RackReader found = findReaderByCardHandle(hCard);
        if (found.reader == nullptr) return failure(SCARD_E_INVALID_HANDLE);
        return attribute.read(found);
    }
    return failure(SCARD_E_UNSUPPORTED_FEATURE);
}

void traceLength(DWORD length)
{
    logWrite("\n");
    logWrite(decimalText(static_cast<uint32_t>(length)));
    logWrite("\n");
}

// The ATR of the handle's reader, traced as it always has been.
LONG deliverAtr(SCARDHANDLE hCard, LPBYTE pbAttr, LPDWORD pcbAttrLen, bool autoAllocate)
{
    if (autoAllocate) logWrite("get_atr_GetReaderAtr_auto\n");
    Reader* reader = findReaderByCardHandle(hCard).reader;
    // The ATR needs a reader; a handle that none holds is refused as the
    // status query refuses it.
    if (reader == nullptr) return SCARD_E_INVALID_HANDLE;
    BYTE atr[Atr::capacity] = {};
    const DWORD length = reader->atr(atr);
    if (autoAllocate || pbAttr == nullptr) {
        if (!autoAllocate) logWrite("get_atr_GetReaderAtr_pbAttr_is_null\n");
        const LONG result = deliverElements(atr, length, pbAttr, pcbAttrLen);
        traceLength(length);
        return result;
    }
    logWrite("get_atr_GetReaderAtr_else\n");
    const DWORD capacity = *pcbAttrLen;
    const LONG result = deliverElements(atr, length, pbAttr, pcbAttrLen, ShortBuffer::whatFits);
    logWrite(decimalText(static_cast<uint32_t>(length)));
    logWrite("\nSCARD_ATTR_ATR_STRING is ");
    logWrite(hexDump(pbAttr, static_cast<int32_t>(std::min(length, capacity))));
    logWrite("\n");
    return result;
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr,
                                                    LPDWORD pcbAttrLen)
{
    logWrite("get_atr\n");
    // The length is both the caller's size and the answer: without it the
    // call cannot say anything, so a null is refused.
    if (pcbAttrLen == nullptr) return SCARD_E_INVALID_PARAMETER;
    const bool autoAllocate = *pcbAttrLen == SCARD_AUTOALLOCATE;
    if (autoAllocate) {
        logWrite("get_atr_SCARD_AUTOALLOCATE\n");
        logWrite("\n");
    }
    if (dwAttrId == SCARD_ATTR_ATR_STRING) return deliverAtr(hCard, pbAttr, pcbAttrLen, autoAllocate);

    const Attribute attribute = readAttribute(hCard, dwAttrId);
    if (attribute.failure != SCARD_S_SUCCESS) return attribute.failure;
    // A short buffer gets what fits, as it always has for the vendor name.
    return deliverElements(attribute.bytes.data(), static_cast<DWORD>(attribute.bytes.size()), pbAttr, pcbAttrLen,
                           ShortBuffer::whatFits);
}

// None of the attributes can be set: they describe the rack and the card.
extern "C" TESSEL_EXPORT LONG WINAPI SCardSetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPCBYTE pbAttr,
                                                    DWORD cbAttrLen)
{
    traceEntry("SCardSetAttrib");
    LONG result = SCARD_E_UNSUPPORTED_FEATURE;
    if (pbAttr == nullptr)
        result = SCARD_E_INVALID_PARAMETER;
    else if (findReaderByCardHandle(hCard).reader == nullptr)
        result = SCARD_E_INVALID_HANDLE;
    return traceResult("SCardSetAttrib", result);
}

// The slots take no control codes. A request for the reader's feature list
// (the first thing most clients do after connecting) gets an empty list;
// every other code gets the platform's answer for a feature the reader
// lacks. *lpBytesReturned is written on every way out; pcsc-lite lets it
// be null, and so does the library. No trace, as before.
extern "C" TESSEL_EXPORT LONG WINAPI SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID lpInBuffer,
                                                  DWORD nInBufferSize, LPVOID lpOutBuffer, DWORD nOutBufferSize,
                                                  LPDWORD lpBytesReturned)
{
    if (lpBytesReturned != nullptr) *lpBytesReturned = 0;
    // Waits, as a transmit does, while another handle holds a transaction.
    connection_table::Connection connection;
    const LONG entered = connection_table::enter(hCard, connection);
    if (entered != SCARD_S_SUCCESS) return entered;
    if (dwControlCode == kGetFeatureRequest) return SCARD_S_SUCCESS;
    return SCARD_E_UNSUPPORTED_FEATURE;
}

// Ends every status-change wait in progress that was called with this
// context; each returns SCARD_E_CANCELLED. With nothing waiting it changes
// nothing, and it succeeds either way; a context that is not live is
// refused.
extern "C" TESSEL_EXPORT LONG WINAPI SCardCancel(SCARDCONTEXT hContext)
{
    logWrite("SCardCancel\n");
    if (!connection_table::isLiveContext(hContext)) return SCARD_E_INVALID_HANDLE;
    cancelWaitsOf(hContext);
    return SCARD_S_SUCCESS;
}
