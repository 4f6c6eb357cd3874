// The surface of FTDI's D2XX library (FTD2XX.dll) that the library uses,
// with the published signatures. On Windows the functions are imported
// from FTD2XX.dll, by ordinal in 32-bit builds and by name in 64-bit ones;
// elsewhere they are linked from whatever provides them, the rack emulator
// in development and tests.
#pragma once

#include <cstddef>
#include <cstdint>

#ifndef _WIN32
#include <pthread.h>
#endif

#ifdef _WIN32
#define FT_API __stdcall
#else
#define FT_API
#endif

extern "C" {

typedef void* FT_HANDLE;
typedef uint32_t FT_STATUS;

enum : FT_STATUS {
    FT_OK = 0,
    FT_INVALID_HANDLE = 1,
    FT_DEVICE_NOT_FOUND = 2,
    FT_DEVICE_NOT_OPENED = 3,
    FT_IO_ERROR = 4,
    FT_INSUFFICIENT_RESOURCES = 5,
    FT_INVALID_PARAMETER = 6,
    FT_OTHER_ERROR = 18,
};

enum : uint32_t {
    FT_OPEN_BY_SERIAL_NUMBER = 1,
    FT_OPEN_BY_DESCRIPTION = 2,
    FT_LIST_NUMBER_ONLY = 0x80000000u,
};

// One record of the device list: 100 bytes on the 32-bit interface, 104 on
// the 64-bit one (the handle is 8 bytes there, at offset 96).
typedef struct _ft_device_list_info_node {
    uint32_t Flags;
    uint32_t Type;
    uint32_t ID;
    uint32_t LocId;
    char SerialNumber[16];
    char Description[64];
    FT_HANDLE ftHandle;
} FT_DEVICE_LIST_INFO_NODE;

#if defined(_WIN32) && !defined(_WIN64)
static_assert(sizeof(FT_DEVICE_LIST_INFO_NODE) == 100, "FT_DEVICE_LIST_INFO_NODE has the published 32-bit size");
#endif
#if defined(_WIN64)
static_assert(sizeof(FT_DEVICE_LIST_INFO_NODE) == 104 && offsetof(FT_DEVICE_LIST_INFO_NODE, ftHandle) == 96,
              "FT_DEVICE_LIST_INFO_NODE has the published 64-bit layout");
#endif

// FT_SetEventNotification's mask bit: characters have been received.
enum : uint32_t {
    FT_EVENT_RXCHAR = 1,
};

#ifndef _WIN32
// What FT_SetEventNotification takes on Linux instead of an event handle:
// the library signals the condition under the mutex when its mask is met.
typedef struct _EVENT_HANDLE {
    pthread_cond_t eCondVar;
    pthread_mutex_t eMutex;
    int iVar;
} EVENT_HANDLE;
#endif

// Functions that not every version of the D2XX library has. The library
// never imports them: it looks them up by name at run time
// (platform/d2xx_optional.h), so that the import table keeps its ordinals.
typedef FT_STATUS(FT_API* FT_SetLatencyTimerFunction)(FT_HANDLE ftHandle, uint8_t ucLatency);
typedef FT_STATUS(FT_API* FT_GetLatencyTimerFunction)(FT_HANDLE ftHandle, uint8_t* pucLatency);
typedef FT_STATUS(FT_API* FT_SetEventNotificationFunction)(FT_HANDLE ftHandle, uint32_t Mask, void* Param);

FT_STATUS FT_API FT_Close(FT_HANDLE ftHandle);
FT_STATUS FT_API FT_Read(FT_HANDLE ftHandle, void* lpBuffer, uint32_t dwBytesToRead, uint32_t* lpBytesReturned);
FT_STATUS FT_API FT_Write(FT_HANDLE ftHandle, void* lpBuffer, uint32_t dwBytesToWrite, uint32_t* lpBytesWritten);
FT_STATUS FT_API FT_SetBaudRate(FT_HANDLE ftHandle, uint32_t BaudRate);
FT_STATUS FT_API FT_SetDataCharacteristics(FT_HANDLE ftHandle, uint8_t WordLength, uint8_t StopBits, uint8_t Parity);
FT_STATUS FT_API FT_GetQueueStatus(FT_HANDLE ftHandle, uint32_t* dwRxBytes);
FT_STATUS FT_API FT_OpenEx(void* pArg1, uint32_t Flags, FT_HANDLE* pHandle);
FT_STATUS FT_API FT_ListDevices(void* pArg1, void* pArg2, uint32_t Flags);
FT_STATUS FT_API FT_CreateDeviceInfoList(uint32_t* lpdwNumDevs);
FT_STATUS FT_API FT_GetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* pDest, uint32_t* lpdwNumDevs);

}  // extern "C"
