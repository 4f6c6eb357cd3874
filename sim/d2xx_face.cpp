// The D2XX functions the library calls, each handed to the emulator's core.
// On Linux this file makes libftd2xx.so; on Windows the same functions make
// the stand-in FTD2XX.dll.
#ifdef _WIN32
#define D2XX_EXPORT __declspec(dllexport)
#include "platform/d2xx.h"
#else
#define D2XX_EXPORT
#pragma GCC visibility push(default)
#include "platform/d2xx.h"
#endif

#include "sim/rack_registry.h"

extern "C" {

D2XX_EXPORT FT_STATUS FT_API FT_SetLatencyTimer(FT_HANDLE ftHandle, uint8_t ucLatency);
D2XX_EXPORT FT_STATUS FT_API FT_GetLatencyTimer(FT_HANDLE ftHandle, uint8_t* pucLatency);
D2XX_EXPORT FT_STATUS FT_API FT_SetEventNotification(FT_HANDLE ftHandle, uint32_t Mask, void* Param);

D2XX_EXPORT FT_STATUS FT_API FT_Close(FT_HANDLE ftHandle) { return racksim::hostClose(ftHandle); }

D2XX_EXPORT FT_STATUS FT_API FT_Read(FT_HANDLE ftHandle, void* lpBuffer, uint32_t dwBytesToRead,
                                     uint32_t* lpBytesReturned)
{
    return racksim::hostRead(ftHandle, lpBuffer, dwBytesToRead, lpBytesReturned);
}

D2XX_EXPORT FT_STATUS FT_API FT_Write(FT_HANDLE ftHandle, void* lpBuffer, uint32_t dwBytesToWrite,
                                      uint32_t* lpBytesWritten)
{
    return racksim::hostWrite(ftHandle, lpBuffer, dwBytesToWrite, lpBytesWritten);
}

D2XX_EXPORT FT_STATUS FT_API FT_SetBaudRate(FT_HANDLE ftHandle, uint32_t BaudRate)
{
    return racksim::hostSetBaudRate(ftHandle, BaudRate);
}

D2XX_EXPORT FT_STATUS FT_API FT_SetDataCharacteristics(FT_HANDLE ftHandle, uint8_t WordLength, uint8_t StopBits,
                                                       uint8_t Parity)
{
    return racksim::hostSetDataCharacteristics(ftHandle, WordLength, StopBits, Parity);
}

D2XX_EXPORT FT_STATUS FT_API FT_GetQueueStatus(FT_HANDLE ftHandle, uint32_t* dwRxBytes)
{
    return racksim::hostQueueStatus(ftHandle, dwRxBytes);
}

// Not every D2XX library has these; the library finds them by name.
D2XX_EXPORT FT_STATUS FT_API FT_SetLatencyTimer(FT_HANDLE ftHandle, uint8_t ucLatency)
{
    return racksim::hostSetLatencyTimer(ftHandle, ucLatency);
}

D2XX_EXPORT FT_STATUS FT_API FT_GetLatencyTimer(FT_HANDLE ftHandle, uint8_t* pucLatency)
{
    return racksim::hostGetLatencyTimer(ftHandle, pucLatency);
}

D2XX_EXPORT FT_STATUS FT_API FT_SetEventNotification(FT_HANDLE ftHandle, uint32_t Mask, void* Param)
{
    return racksim::hostSetEventNotification(ftHandle, Mask, Param);
}

D2XX_EXPORT FT_STATUS FT_API FT_OpenEx(void* pArg1, uint32_t Flags, FT_HANDLE* pHandle)
{
    return racksim::hostOpen(pArg1, Flags, pHandle);
}

D2XX_EXPORT FT_STATUS FT_API FT_ListDevices(void* pArg1, void* pArg2, uint32_t Flags)
{
    return racksim::hostListDevices(pArg1, pArg2, Flags);
}

D2XX_EXPORT FT_STATUS FT_API FT_CreateDeviceInfoList(uint32_t* lpdwNumDevs)
{
    return racksim::hostCreateDeviceInfoList(lpdwNumDevs);
}

D2XX_EXPORT FT_STATUS FT_API FT_GetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* pDest, uint32_t* lpdwNumDevs)
{
    return racksim::hostGetDeviceInfoList(pDest, lpdwNumDevs);
}

}  // extern "C"

#ifndef _WIN32
#pragma GCC visibility pop
#endif
