// The last calls of the published API: the transmit count, the status
// query without the reader's name, and the calls whose only job on this
// system is to do no harm.
#include "pcsc/call_trace.h"
#include "pcsc/lookups.h"
#include "pcsc/transmit_count.h"
#include "pcsc/winscard_api.h"

namespace {

// A class installer's answer for "let the installer do its default".
constexpr DWORD kClassInstallerDefault = 0xE000020E;  // ERROR_DI_DO_DEFAULT

}  // namespace

extern "C" {

LONG WINAPI SCardGetTransmitCount(SCARDHANDLE hCard, LPDWORD pcTransmitCount)
{
    traceEntry("SCardGetTransmitCount");
    if (pcTransmitCount == nullptr) return traceResult("SCardGetTransmitCount", SCARD_E_INVALID_PARAMETER);
    if (findReaderByCardHandle(hCard).reader == nullptr)
        return traceResult("SCardGetTransmitCount", SCARD_E_INVALID_HANDLE);
    *pcTransmitCount = transmitsOf(hCard);
    return traceResult("SCardGetTransmitCount", SCARD_S_SUCCESS);
}

// The status query, without the reader's name.
LONG WINAPI SCardState(SCARDHANDLE hCard, LPDWORD pdwState, LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen)
{
    traceEntry("SCardState");
    return traceResult("SCardState", SCardStatusA(hCard, nullptr, nullptr, pdwState, pdwProtocol, pbAtr, pcbAtrLen));
}

// An audit event goes to the system's log; there is none here, and the
// event is taken.
LONG WINAPI SCardAudit(SCARDCONTEXT hContext, DWORD dwEvent)
{
    traceEntry("SCardAudit");
    return traceResult("SCardAudit", SCARD_S_SUCCESS);
}

// The smart card dialogs have no extended error: none was shown.
LONG WINAPI SCardDlgExtendedError(void)
{
    traceEntry("SCardDlgExtendedError");
    return traceResult("SCardDlgExtendedError", SCARD_S_SUCCESS);
}

// The reader device class installer: nothing of its own to install.
DWORD WINAPI ClassInstall32(DWORD installFunction, HANDLE deviceInfoSet, void* deviceInfoData)
{
    traceEntry("ClassInstall32");
    traceResult("ClassInstall32", static_cast<LONG>(kClassInstallerDefault));
    return kClassInstallerDefault;
}

}  // extern "C"
