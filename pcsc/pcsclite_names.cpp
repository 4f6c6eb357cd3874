// The names a Linux PC/SC client resolves in libpcsclite.so.1 that the core
// does not export itself. The functions with a character type have one name
// there, with no A or W, and take narrow strings: they are the core's A
// forms. SCardControl and SCardSetAttrib are the core's own, shared with
// Windows (attributes.cpp).
#include <cstdio>

#include "pcsc/connection_table.h"
#include "pcsc/reader_groups.h"
#include "pcsc/winscard_api.h"

namespace {

struct ResultText {
    LONG result;
    const char* text;
};

constexpr ResultText kResultTexts[] = {
    {SCARD_S_SUCCESS, "Command successful."},
    {SCARD_E_CANCELLED, "Command cancelled."},
    {SCARD_E_INVALID_HANDLE, "Invalid handle."},
    {SCARD_E_INVALID_PARAMETER, "Invalid parameter given."},
    {SCARD_E_NO_MEMORY, "Not enough memory."},
    {SCARD_E_INSUFFICIENT_BUFFER, "Insufficient buffer."},
    {SCARD_E_UNKNOWN_READER, "Unknown reader specified."},
    {SCARD_E_TIMEOUT, "Command timeout."},
    {SCARD_E_NO_SMARTCARD, "No smart card inserted."},
    {SCARD_E_PROTO_MISMATCH, "Card protocol mismatch."},
    {SCARD_E_INVALID_VALUE, "Invalid value given."},
    {SCARD_E_READER_UNAVAILABLE, "Reader is unavailable."},
    {SCARD_E_UNSUPPORTED_FEATURE, "Feature not supported."},
    {SCARD_E_NO_READERS_AVAILABLE, "Cannot find a smart card reader."},
    {SCARD_W_UNRESPONSIVE_CARD, "Card is unresponsive."},
    {SCARD_W_REMOVED_CARD, "Card was removed."},
};

}  // namespace

extern "C" {

// The text of a result, for clients' messages. A value the library never
// returns is shown by number; that text lives in one buffer per thread.
TESSEL_EXPORT const char* pcsc_stringify_error(const LONG result)
{
    for (const ResultText& known : kResultTexts) {
        if (known.result == result) return known.text;
    }
    static thread_local char unknown[40];
    std::snprintf(unknown, sizeof unknown, "Unknown error: 0x%08lX", static_cast<unsigned long>(result));
    return unknown;
}

TESSEL_EXPORT LONG SCardListReaders(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders, LPDWORD pcchReaders)
{
    return SCardListReadersA(hContext, mszGroups, mszReaders, pcchReaders);
}

TESSEL_EXPORT LONG SCardConnect(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode, DWORD dwPreferredProtocols,
                                LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol)
{
    return SCardConnectA(hContext, szReader, dwShareMode, dwPreferredProtocols, phCard, pdwActiveProtocol);
}

TESSEL_EXPORT LONG SCardStatus(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState,
                               LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen)
{
    return SCardStatusA(hCard, szReaderName, pcchReaderLen, pdwState, pdwProtocol, pbAtr, pcbAtrLen);
}

// An empty list is answered at once, as pcsc-lite does: there is nothing
// to wait for, and clients call it so to test the context.
TESSEL_EXPORT LONG SCardGetStatusChange(SCARDCONTEXT hContext, DWORD dwTimeout, SCARD_READERSTATE* rgReaderStates,
                                        DWORD cReaders)
{
    if (cReaders == 0) return SCARD_S_SUCCESS;
    return SCardGetStatusChangeA(hContext, dwTimeout, rgReaderStates, cReaders);
}

// The default group, by the buffer rules of the reader list.
TESSEL_EXPORT LONG SCardListReaderGroups(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups)
{
    if (!connection_table::acceptsQueryContext(hContext)) return SCARD_E_INVALID_HANDLE;
    return listReaderGroups(mszGroups, pcchGroups);
}

}  // extern "C"
