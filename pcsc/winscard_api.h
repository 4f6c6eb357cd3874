// The exported functions and data of the library. On Windows the
// declarations of the published API come from <winscard.h>; elsewhere
// pcsc-lite's <PCSC/winscard.h> declares the names the two share, and they
// are declared here again, with the A and W forms, to be exported.
#pragma once

#include "pcsc/pcsc_types.h"

#ifdef _WIN32
#define TESSEL_EXPORT
#else
#define TESSEL_EXPORT __attribute__((visibility("default")))
#endif

extern "C" {

// Start-up and shut-down. On 32-bit Windows the stdcall decoration turns
// these into the exported names _KickOff@0 and _CloseConnections@0.
TESSEL_EXPORT void WINAPI KickOff(void);
TESSEL_EXPORT void WINAPI CloseConnections(void);

// Not part of the published API: resets every rack.
TESSEL_EXPORT void WINAPI SCardReset(void);

#ifdef _WIN32
// The exports of the system's winscard.dll that mingw-w64's <winscard.h>
// does not declare, with the published signatures.
LONG WINAPI SCardGetDeviceTypeIdA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPDWORD pdwDeviceTypeId);
LONG WINAPI SCardGetDeviceTypeIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPDWORD pdwDeviceTypeId);
LONG WINAPI SCardGetReaderDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPSTR szDeviceInstanceId,
                                            LPDWORD pcchDeviceInstanceId);
LONG WINAPI SCardGetReaderDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPWSTR szDeviceInstanceId,
                                            LPDWORD pcchDeviceInstanceId);
LONG WINAPI SCardListReadersWithDeviceInstanceIdA(SCARDCONTEXT hContext, LPCSTR szDeviceInstanceId, LPSTR mszReaders,
                                                  LPDWORD pcchReaders);
LONG WINAPI SCardListReadersWithDeviceInstanceIdW(SCARDCONTEXT hContext, LPCWSTR szDeviceInstanceId,
                                                  LPWSTR mszReaders, LPDWORD pcchReaders);
LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName, LPBYTE pbIcon, LPDWORD pcbIcon);
LONG WINAPI SCardGetReaderIconW(SCARDCONTEXT hContext, LPCWSTR szReaderName, LPBYTE pbIcon, LPDWORD pcbIcon);
LONG WINAPI SCardAudit(SCARDCONTEXT hContext, DWORD dwEvent);
HANDLE WINAPI SCardAccessNewReaderEvent(void);
void WINAPI SCardReleaseNewReaderEvent(void);
void WINAPI SCardReleaseAllEvents(void);
// The class installer entry of the smart card reader device class:
// (DI_FUNCTION, HDEVINFO, PSP_DEVINFO_DATA).
DWORD WINAPI ClassInstall32(DWORD installFunction, HANDLE deviceInfoSet, void* deviceInfoData);
#else
TESSEL_EXPORT LONG WINAPI SCardEstablishContext(DWORD dwScope, LPCVOID pvReserved1, LPCVOID pvReserved2,
                                                LPSCARDCONTEXT phContext);
TESSEL_EXPORT LONG WINAPI SCardReleaseContext(SCARDCONTEXT hContext);
TESSEL_EXPORT LONG WINAPI SCardIsValidContext(SCARDCONTEXT hContext);
TESSEL_EXPORT LONG WINAPI SCardListReadersA(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                                            LPDWORD pcchReaders);
TESSEL_EXPORT LONG WINAPI SCardListReadersW(SCARDCONTEXT hContext, LPCWSTR mszGroups, LPWSTR mszReaders,
                                            LPDWORD pcchReaders);
TESSEL_EXPORT LONG WINAPI SCardFreeMemory(SCARDCONTEXT hContext, LPCVOID pvMem);
TESSEL_EXPORT LONG WINAPI SCardGetStatusChangeA(SCARDCONTEXT hContext, DWORD dwTimeout,
                                                LPSCARD_READERSTATEA rgReaderStates, DWORD cReaders);
TESSEL_EXPORT LONG WINAPI SCardGetStatusChangeW(SCARDCONTEXT hContext, DWORD dwTimeout,
                                                LPSCARD_READERSTATEW rgReaderStates, DWORD cReaders);
TESSEL_EXPORT LONG WINAPI SCardCancel(SCARDCONTEXT hContext);
TESSEL_EXPORT LONG WINAPI SCardConnectA(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode,
                                        DWORD dwPreferredProtocols, LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol);
TESSEL_EXPORT LONG WINAPI SCardConnectW(SCARDCONTEXT hContext, LPCWSTR szReader, DWORD dwShareMode,
                                        DWORD dwPreferredProtocols, LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol);
TESSEL_EXPORT LONG WINAPI SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols,
                                         DWORD dwInitialization, LPDWORD pdwActiveProtocol);
TESSEL_EXPORT LONG WINAPI SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition);
TESSEL_EXPORT LONG WINAPI SCardBeginTransaction(SCARDHANDLE hCard);
TESSEL_EXPORT LONG WINAPI SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition);
TESSEL_EXPORT LONG WINAPI SCardStatusA(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState,
                                       LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen);
TESSEL_EXPORT LONG WINAPI SCardStatusW(SCARDHANDLE hCard, LPWSTR szReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState,
                                       LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen);
TESSEL_EXPORT LONG WINAPI SCardTransmit(SCARDHANDLE hCard, LPCSCARD_IO_REQUEST pioSendPci, LPCBYTE pbSendBuffer,
                                        DWORD cbSendLength, LPSCARD_IO_REQUEST pioRecvPci, LPBYTE pbRecvBuffer,
                                        LPDWORD pcbRecvLength);
TESSEL_EXPORT LONG WINAPI SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID lpInBuffer,
                                       DWORD nInBufferSize, LPVOID lpOutBuffer, DWORD nOutBufferSize,
                                       LPDWORD lpBytesReturned);
TESSEL_EXPORT LONG WINAPI SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen);
TESSEL_EXPORT LONG WINAPI SCardSetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPCBYTE pbAttr, DWORD cbAttrLen);

TESSEL_EXPORT extern const SCARD_IO_REQUEST g_rgSCardT0Pci;
TESSEL_EXPORT extern const SCARD_IO_REQUEST g_rgSCardT1Pci;
TESSEL_EXPORT extern const SCARD_IO_REQUEST g_rgSCardRawPci;
#endif

}  // extern "C"
