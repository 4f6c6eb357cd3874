// The types and constants of the PC/SC API in their published 32-bit
// Windows shapes. On Windows they come from the platform's own <winscard.h>,
// so that a signature or a record that differs from the published one fails
// to compile. Elsewhere the same shapes are defined here with fixed-width
// 32-bit integers, so that one body of code serves both.
#pragma once

#ifdef _WIN32

// The library defines the three PCI records itself, so the header must not
// declare them as imported data.
#define WINSCARDDATA
#include <windows.h>
#include <winscard.h>

#else

#include <cstdint>

#define WINAPI

typedef int32_t LONG;
typedef uint32_t DWORD;
typedef DWORD* LPDWORD;
typedef uint8_t BYTE;
typedef BYTE* LPBYTE;
typedef const BYTE* LPCBYTE;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef wchar_t WCHAR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;

typedef uint32_t SCARDCONTEXT;
typedef SCARDCONTEXT* LPSCARDCONTEXT;
typedef uint32_t SCARDHANDLE;
typedef SCARDHANDLE* LPSCARDHANDLE;

typedef struct {
    DWORD dwProtocol;
    DWORD cbPciLength;
} SCARD_IO_REQUEST, *PSCARD_IO_REQUEST, *LPSCARD_IO_REQUEST;
typedef const SCARD_IO_REQUEST* LPCSCARD_IO_REQUEST;

typedef struct {
    LPCSTR szReader;
    LPVOID pvUserData;
    DWORD dwCurrentState;
    DWORD dwEventState;
    DWORD cbAtr;
    BYTE rgbAtr[36];
} SCARD_READERSTATEA, *PSCARD_READERSTATEA, *LPSCARD_READERSTATEA;

typedef struct {
    LPCWSTR szReader;
    LPVOID pvUserData;
    DWORD dwCurrentState;
    DWORD dwEventState;
    DWORD cbAtr;
    BYTE rgbAtr[36];
} SCARD_READERSTATEW, *PSCARD_READERSTATEW, *LPSCARD_READERSTATEW;

#define SCARD_S_SUCCESS ((LONG)0x00000000)
#define SCARD_E_CANCELLED ((LONG)0x80100002)
#define SCARD_E_INVALID_HANDLE ((LONG)0x80100003)
#define SCARD_E_INVALID_PARAMETER ((LONG)0x80100004)
#define SCARD_E_NO_MEMORY ((LONG)0x80100006)
#define SCARD_E_INSUFFICIENT_BUFFER ((LONG)0x80100008)
#define SCARD_E_UNKNOWN_READER ((LONG)0x80100009)
#define SCARD_E_TIMEOUT ((LONG)0x8010000A)
#define SCARD_E_NO_SMARTCARD ((LONG)0x8010000C)
#define SCARD_E_PROTO_MISMATCH ((LONG)0x8010000F)
#define SCARD_E_INVALID_VALUE ((LONG)0x80100011)
#define SCARD_E_READER_UNAVAILABLE ((LONG)0x80100017)
#define SCARD_E_NO_READERS_AVAILABLE ((LONG)0x8010002E)
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_SUPPORTED 50L

#define SCARD_AUTOALLOCATE ((DWORD)(-1))
#define INFINITE 0xFFFFFFFF

#define SCARD_SCOPE_USER 0
#define SCARD_SCOPE_TERMINAL 1
#define SCARD_SCOPE_SYSTEM 2

#define SCARD_LEAVE_CARD 0
#define SCARD_RESET_CARD 1
#define SCARD_UNPOWER_CARD 2
#define SCARD_EJECT_CARD 3

#define SCARD_SHARE_EXCLUSIVE 1
#define SCARD_SHARE_SHARED 2
#define SCARD_SHARE_DIRECT 3

#define SCARD_PROTOCOL_UNDEFINED 0x00000000
#define SCARD_PROTOCOL_T0 0x00000001
#define SCARD_PROTOCOL_T1 0x00000002

#define SCARD_STATE_UNAWARE 0x00000000
#define SCARD_STATE_IGNORE 0x00000001
#define SCARD_STATE_CHANGED 0x00000002
#define SCARD_STATE_UNKNOWN 0x00000004
#define SCARD_STATE_UNAVAILABLE 0x00000008
#define SCARD_STATE_EMPTY 0x00000010
#define SCARD_STATE_PRESENT 0x00000020
#define SCARD_STATE_ATRMATCH 0x00000040
#define SCARD_STATE_EXCLUSIVE 0x00000080
#define SCARD_STATE_INUSE 0x00000100
#define SCARD_STATE_MUTE 0x00000200
#define SCARD_STATE_UNPOWERED 0x00000400

#define SCARD_ATTR_VENDOR_NAME 0x00010100
#define SCARD_ATTR_VENDOR_IFD_TYPE 0x00010101
#define SCARD_ATTR_VENDOR_IFD_VERSION 0x00010102
#define SCARD_ATTR_VENDOR_IFD_SERIAL_NO 0x00010103
#define SCARD_ATTR_ATR_STRING 0x00090303

#endif
