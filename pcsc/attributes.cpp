// Attributes and the small calls: SCardGetAttrib serves the vendor name and
// the ATR; SCardCancel ends the status-change waits of its context (the
// transaction calls are in transactions.cpp); SCardControl does nothing at all on Windows. Also the
// three exported protocol control records.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "pcsc/connection_table.h"
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
// The block handed over under SCARD_AUTOALLOCATE.
constexpr size_t kAttributeBlockSize = 264;
constexpr LONG kNotSupported = 50;  // ERROR_NOT_SUPPORTED

void copyVendorName(BYTE* destination, DWORD capacity)
{
    BYTE name[kVendorNameSize] = {};
    std::memcpy(name, g_vendorName.c_str(), std::min<size_t>(g_vendorName.size(), kVendorNameSize - 1));
    std::memcpy(destination, name, std::min(capacity, kVendorNameSize));
}

// The attributes that exist but have nothing to deliver succeed without
// touching any output; every other id is not supported.
LONG answerWithoutData(DWORD dwAttrId)
{
    if (dwAttrId == SCARD_ATTR_VENDOR_IFD_VERSION || dwAttrId == SCARD_ATTR_VENDOR_IFD_SERIAL_NO)
        return SCARD_S_SUCCESS;
    return kNotSupported;
}

void traceLength(DWORD length)
{
    logWrite("\n");
    logWrite(decimalText(static_cast<uint32_t>(length)));
    logWrite("\n");
}

// SCARD_AUTOALLOCATE: the attribute goes into a zeroed block that the host
// receives through the pointer that pbAttr points to.
LONG attributeInNewBlock(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen)
{
    logWrite("get_atr_SCARD_AUTOALLOCATE\n");
    logWrite("\n");
    BYTE* block = static_cast<BYTE*>(std::calloc(kAttributeBlockSize, 1));
    if (block == nullptr) return SCARD_E_NO_MEMORY;

    // The block is handed over through pbAttr, which must be there to take
    // it.
    const bool delivers = dwAttrId == SCARD_ATTR_VENDOR_NAME || dwAttrId == SCARD_ATTR_ATR_STRING;
    if (delivers && pbAttr == nullptr) {
        std::free(block);
        return SCARD_E_INVALID_PARAMETER;
    }
    if (dwAttrId == SCARD_ATTR_VENDOR_NAME) {
        copyVendorName(block, kVendorNameSize);
        *pcbAttrLen = kVendorNameSize;
        *reinterpret_cast<BYTE**>(pbAttr) = block;
        return SCARD_S_SUCCESS;
    }
    if (dwAttrId == SCARD_ATTR_ATR_STRING) {
        logWrite("get_atr_GetReaderAtr_auto\n");
        Reader* reader = findReaderByCardHandle(hCard).reader;
        if (reader == nullptr) {
            // The ATR needs a reader; a handle that none holds is refused
            // as the status query refuses it.
            std::free(block);
            return SCARD_E_INVALID_HANDLE;
        }
        *pcbAttrLen = reader->atr(block);
        traceLength(*pcbAttrLen);
        *reinterpret_cast<BYTE**>(pbAttr) = block;
        return SCARD_S_SUCCESS;
    }
    // Nothing to hand over: the block goes back at once.
    std::free(block);
    return answerWithoutData(dwAttrId);
}

// The caller's own buffer, whose size comes in *pcbAttrLen. A buffer
// smaller than the data gets what fits, the length it needs and
// SCARD_E_INSUFFICIENT_BUFFER, as the status query answers; a null buffer
// asks for the length alone.
LONG attributeInCallersBuffer(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen)
{
    const DWORD capacity = *pcbAttrLen;
    if (dwAttrId == SCARD_ATTR_VENDOR_NAME) {
        *pcbAttrLen = kVendorNameSize;
        if (pbAttr == nullptr) return SCARD_S_SUCCESS;
        copyVendorName(pbAttr, capacity);
        return capacity < kVendorNameSize ? SCARD_E_INSUFFICIENT_BUFFER : SCARD_S_SUCCESS;
    }
    if (dwAttrId != SCARD_ATTR_ATR_STRING) return answerWithoutData(dwAttrId);

    Reader* reader = findReaderByCardHandle(hCard).reader;
    if (reader == nullptr) return SCARD_E_INVALID_HANDLE;
    // The ATR is taken into a buffer of the library's own first, so that
    // no byte of it lands anywhere the caller did not offer.
    BYTE atr[kAttributeBlockSize] = {};
    if (pbAttr == nullptr) {
        logWrite("get_atr_GetReaderAtr_pbAttr_is_null\n");
        *pcbAttrLen = reader->atr(atr);
        traceLength(*pcbAttrLen);
        return SCARD_S_SUCCESS;
    }
    logWrite("get_atr_GetReaderAtr_else\n");
    const DWORD length = reader->atr(atr);
    const DWORD delivered = std::min(length, capacity);
    std::memcpy(pbAttr, atr, delivered);
    *pcbAttrLen = length;
    logWrite(decimalText(static_cast<uint32_t>(length)));
    logWrite("\nSCARD_ATTR_ATR_STRING is ");
    logWrite(hexDump(pbAttr, static_cast<int32_t>(delivered)));
    logWrite("\n");
    return length > capacity ? SCARD_E_INSUFFICIENT_BUFFER : SCARD_S_SUCCESS;
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr,
                                                    LPDWORD pcbAttrLen)
{
    logWrite("get_atr\n");
    // The length is both the caller's size and the answer: without it the
    // call cannot say anything, so a null is refused.
    if (pcbAttrLen == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (*pcbAttrLen == SCARD_AUTOALLOCATE) return attributeInNewBlock(hCard, dwAttrId, pbAttr, pcbAttrLen);
    return attributeInCallersBuffer(hCard, dwAttrId, pbAttr, pcbAttrLen);
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

#ifdef _WIN32
// The slots take no control codes. No trace, and *lpBytesReturned is left
// as it was. (Elsewhere the call answers as pcsc-lite does:
// pcsclite_names.cpp.)
extern "C" TESSEL_EXPORT LONG WINAPI SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID lpInBuffer,
                                                  DWORD nInBufferSize, LPVOID lpOutBuffer, DWORD nOutBufferSize,
                                                  LPDWORD lpBytesReturned)
{
    return SCARD_S_SUCCESS;
}
#endif
