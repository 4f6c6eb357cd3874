// Card status query: the reader's name, the card state, the protocol and
// the ATR for a card handle, answered from what the reader and the
// connection hold in memory.
// Each of the two outputs follows the published buffer rules on its own:
// the caller's buffer, a null buffer for the length alone, or
// SCARD_AUTOALLOCATE.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "diag/trace_log.h"
#include "pcsc/api_text.h"
#include "pcsc/connection_table.h"
#include "pcsc/host_buffer.h"
#include "pcsc/winscard_api.h"
#include "reader/atr.h"
#include "reader/reader.h"

namespace {

template <typename Char>
struct StatusForm;

template <>
struct StatusForm<char> {
    static constexpr const char* entry = "SCardStatusA\n";
    static constexpr bool tracesDetail = false;
};

template <>
struct StatusForm<WCHAR> {
    static constexpr const char* entry = "SCardStatusW\n";
    static constexpr bool tracesDetail = true;
};

void traceIf(bool traced, const char* text)
{
    if (traced) logWrite(text);
}

// The reader state in the platform's own values: Windows numbers the states
// SCARD_ABSENT (1) to SCARD_SPECIFIC (6), one at a time; pcsc-lite gives
// them as bits, a powered card with its protocol as PRESENT, POWERED and
// SPECIFIC together. A card with a negotiated protocol is SPECIFIC; a
// direct connection to a card nobody powered sees it PRESENT.
DWORD platformState(uint32_t cardState, const connection_table::Connection& connection)
{
    const bool specific = connection.powered && connection.protocol != 0;
#ifdef _WIN32
    if (cardState == kStateNoCard) return SCARD_ABSENT;
    if (cardState == kStateMuteCard) return SCARD_SWALLOWED;
    if (!connection.powered) return SCARD_PRESENT;
    return specific ? SCARD_SPECIFIC : SCARD_POWERED;
#else
    if (cardState == kStateNoCard) return SCARD_ABSENT;
    if (cardState == kStateMuteCard) return SCARD_PRESENT | SCARD_SWALLOWED;
    if (!connection.powered) return SCARD_PRESENT;
    return SCARD_PRESENT | SCARD_POWERED | (specific ? SCARD_SPECIFIC : 0);
#endif
}

template <typename Char>
LONG cardStatus(SCARDHANDLE hCard, Char* mszReaderNames, LPDWORD pcchReaderLen, LPDWORD pdwState,
                LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen)
{
    logWrite(StatusForm<Char>::entry);
    // The four integer outputs may be null: what would go through them is
    // written to one scratch value and lost.
    DWORD scratch = 0;
    if (pdwState == nullptr) pdwState = &scratch;
    if (pdwProtocol == nullptr) pdwProtocol = &scratch;
    if (pcchReaderLen == nullptr) pcchReaderLen = &scratch;
    if (pcbAtrLen == nullptr) pcbAtrLen = &scratch;
    DWORD nameSize = *pcchReaderLen;
    DWORD atrSize = *pcbAtrLen;

    connection_table::Connection connection;
    if (!connection_table::find(hCard, connection)) {
        traceIf(StatusForm<Char>::tracesDetail, "InvalidHandle\n");
        return SCARD_E_INVALID_HANDLE;
    }
    // A card that left or was reset since the connect is reported until
    // the host reconnects, and nothing else is delivered.
    if (connection.cardWarning != SCARD_S_SUCCESS) return connection.cardWarning;
    Reader* reader = connection.reader;

    // One name with its NUL, counted in characters in both forms.
    const std::basic_string<Char> name = textAs<Char>(reader->name);
    const DWORD nameLength = static_cast<DWORD>(name.size() + 1);
    *pcchReaderLen = nameLength;
    uint8_t atr[Atr::capacity] = {};
    const DWORD atrLength = reader->atr(atr);
    *pcbAtrLen = atrLength;

    // Each output by the buffer rules on its own. A buffer too small for
    // the name gets as much of it as fits with a closing NUL, so that it
    // still holds a text; a short ATR buffer gets the ATR cut to its size.
    // Only the name step of the wide form traces the rules' moments.
    HostBufferTraces nameTraces;
    if (StatusForm<Char>::tracesDetail) {
        nameTraces.autoAllocate = "SCARD_AUTOALLOCATE\n";
        nameTraces.withoutPointer = "SCARD_E_INVALID_PARAMETER\n";
        nameTraces.noMemory = "SCARD_E_NO_MEMORY\n";
    }
    LONG result = deliverElements(name.c_str(), nameLength, mszReaderNames, &nameSize, ShortBuffer::textThatFits,
                                  nameTraces);
    if (result != SCARD_S_SUCCESS && result != SCARD_E_INSUFFICIENT_BUFFER) return result;
    const LONG atrResult = deliverElements<BYTE>(atr, atrLength, pbAtr, &atrSize, ShortBuffer::whatFits);
    if (atrResult != SCARD_S_SUCCESS && atrResult != SCARD_E_INSUFFICIENT_BUFFER) return atrResult;
    if (atrResult != SCARD_S_SUCCESS) result = atrResult;

    // The connection's active protocol: 0 for a direct one, or a card whose
    // ATR names none.
    *pdwProtocol = connection.protocol;
    *pdwState = platformState(reader->cardState(), connection);
    return result;
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardStatusA(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen,
                                                  LPDWORD pdwState, LPDWORD pdwProtocol, LPBYTE pbAtr,
                                                  LPDWORD pcbAtrLen)
{
    return cardStatus<char>(hCard, szReaderName, pcchReaderLen, pdwState, pdwProtocol, pbAtr, pcbAtrLen);
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardStatusW(SCARDHANDLE hCard, LPWSTR szReaderName, LPDWORD pcchReaderLen,
                                                  LPDWORD pdwState, LPDWORD pdwProtocol, LPBYTE pbAtr,
                                                  LPDWORD pcbAtrLen)
{
    return cardStatus<WCHAR>(hCard, szReaderName, pcchReaderLen, pdwState, pdwProtocol, pbAtr, pcbAtrLen);
}
