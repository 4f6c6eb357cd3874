// The names a Linux PC/SC client resolves in libpcsclite.so.1 that the core
// does not export itself. The functions with a character type have one name
// there, with no A or W, and take narrow strings: they are the core's A
// forms. The calls the slots have nothing for answer as pcsc-lite answers
// for a reader without the feature, so that a client probing them goes on.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pcsc/winscard_api.h"

namespace {

// The one reader group there is; pcsc-lite lists it for every reader.
constexpr char kReaderGroups[] = "SCard$DefaultReaders\0";

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

// The slots take no control codes. pcsc-lite's answer for a reader that
// has none lets a client that asks for the reader's features (the first
// thing most of them do after connecting) carry on without them; a
// success would have it read a feature list that was never written.
TESSEL_EXPORT LONG SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID pbSendBuffer, DWORD cbSendLength,
                                LPVOID pbRecvBuffer, DWORD cbRecvLength, LPDWORD lpBytesReturned)
{
    if (lpBytesReturned != nullptr) *lpBytesReturned = 0;
    return SCARD_E_UNSUPPORTED_FEATURE;
}

TESSEL_EXPORT LONG SCardSetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPCBYTE pbAttr, DWORD cbAttrLen)
{
    return SCARD_E_UNSUPPORTED_FEATURE;
}

// The default group, with the sizing rules of the reader list: no buffer
// asks for the size, SCARD_AUTOALLOCATE hands over a block for
// SCardFreeMemory, a short buffer is refused.
TESSEL_EXPORT LONG SCardListReaderGroups(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups)
{
    if (pcchGroups == nullptr) return SCARD_E_INVALID_PARAMETER;
    const DWORD needed = sizeof kReaderGroups;
    if (mszGroups == nullptr) {
        *pcchGroups = needed;
        return SCARD_S_SUCCESS;
    }
    if (*pcchGroups == SCARD_AUTOALLOCATE) {
        void* block = std::malloc(needed);
        if (block == nullptr) return SCARD_E_NO_MEMORY;
        std::memcpy(block, kReaderGroups, needed);
        *reinterpret_cast<LPSTR*>(mszGroups) = static_cast<LPSTR>(block);
        *pcchGroups = needed;
        return SCARD_S_SUCCESS;
    }
    const DWORD capacity = *pcchGroups;
    *pcchGroups = needed;
    if (capacity < needed) return SCARD_E_INSUFFICIENT_BUFFER;
    std::memcpy(mszGroups, kReaderGroups, needed);
    return SCARD_S_SUCCESS;
}

}  // extern "C"
