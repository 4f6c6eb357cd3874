// The types and constants of the PC/SC API, taken from the platform's own
// published headers, so that a signature or a record that differs from the
// published one fails to compile. On Windows that is <winscard.h>.
#pragma once

#ifdef _WIN32

// The library defines the three PCI records itself, so the header must not
// declare them as imported data.
#define WINSCARDDATA
#include <windows.h>
#include <winscard.h>

#else

// Elsewhere the types, records and values are pcsc-lite's, from its own
// headers, so that every exported function has the ABI that the clients of
// libpcsclite.so.1 were built against: DWORD and LONG are the platform's
// long, and the reader state record has pcsc-lite's layout. Only what
// pcsc-lite lacks is added here: the A and W record names and the wide
// strings of the W forms, which the shared core keeps on every platform.
#include <PCSC/winscard.h>
#include <PCSC/wintypes.h>
#include <PCSC/reader.h>

#define WINAPI

typedef wchar_t WCHAR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;

typedef SCARD_READERSTATE SCARD_READERSTATEA, *PSCARD_READERSTATEA, *LPSCARD_READERSTATEA;

// The wide form of the same record: only the reader name differs.
typedef struct {
    LPCWSTR szReader;
    LPVOID pvUserData;
    DWORD dwCurrentState;
    DWORD dwEventState;
    DWORD cbAtr;
    BYTE rgbAtr[MAX_ATR_SIZE];
} SCARD_READERSTATEW, *PSCARD_READERSTATEW, *LPSCARD_READERSTATEW;

#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_SUPPORTED 50L

#endif
