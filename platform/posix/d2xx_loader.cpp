// The D2XX functions of the shared library: each call goes on to the
// function of that name in FTDI's libftd2xx.so, which is found the first
// time the library calls into it, by the one lookup of the D2XX library
// (d2xx_lookup.cpp). A machine without it loads the library all the same
// and finds no racks, as a Windows machine without FTD2XX.dll would find
// none; the rack emulator stands in for it under the same name. Test
// programs link the emulator instead and do not use this file.
#include "platform/d2xx.h"
#include "platform/d2xx_lookup.h"

namespace {

struct D2xxFunctions {
    decltype(&FT_Close) close = nullptr;
    decltype(&FT_Read) read = nullptr;
    decltype(&FT_Write) write = nullptr;
    decltype(&FT_SetBaudRate) setBaudRate = nullptr;
    decltype(&FT_SetDataCharacteristics) setDataCharacteristics = nullptr;
    decltype(&FT_GetQueueStatus) getQueueStatus = nullptr;
    decltype(&FT_OpenEx) openEx = nullptr;
    decltype(&FT_ListDevices) listDevices = nullptr;
    decltype(&FT_CreateDeviceInfoList) createDeviceInfoList = nullptr;
    decltype(&FT_GetDeviceInfoList) getDeviceInfoList = nullptr;
};

template <typename Function>
void find(const char* name, Function& function)
{
    function = reinterpret_cast<Function>(platform::os::findD2xxFunction(name));
}

D2xxFunctions load()
{
    D2xxFunctions functions;
    find("FT_Close", functions.close);
    find("FT_Read", functions.read);
    find("FT_Write", functions.write);
    find("FT_SetBaudRate", functions.setBaudRate);
    find("FT_SetDataCharacteristics", functions.setDataCharacteristics);
    find("FT_GetQueueStatus", functions.getQueueStatus);
    find("FT_OpenEx", functions.openEx);
    find("FT_ListDevices", functions.listDevices);
    find("FT_CreateDeviceInfoList", functions.createDeviceInfoList);
    find("FT_GetDeviceInfoList", functions.getDeviceInfoList);
    return functions;
}

const D2xxFunctions& d2xx()
{
    static const D2xxFunctions functions = load();
    return functions;
}

// A function the library does not have answers as for a device that is
// not there.
template <typename Function, typename... Arguments>
FT_STATUS call(Function function, Arguments... arguments)
{
    return function != nullptr ? function(arguments...) : FT_DEVICE_NOT_FOUND;
}

}  // namespace

extern "C" {

FT_STATUS FT_API FT_Close(FT_HANDLE ftHandle) { return call(d2xx().close, ftHandle); }

FT_STATUS FT_API FT_Read(FT_HANDLE ftHandle, void* lpBuffer, uint32_t dwBytesToRead, uint32_t* lpBytesReturned)
{
    return call(d2xx().read, ftHandle, lpBuffer, dwBytesToRead, lpBytesReturned);
}

FT_STATUS FT_API FT_Write(FT_HANDLE ftHandle, void* lpBuffer, uint32_t dwBytesToWrite, uint32_t* lpBytesWritten)
{
    return call(d2xx().write, ftHandle, lpBuffer, dwBytesToWrite, lpBytesWritten);
}

FT_STATUS FT_API FT_SetBaudRate(FT_HANDLE ftHandle, uint32_t BaudRate)
{
    return call(d2xx().setBaudRate, ftHandle, BaudRate);
}

FT_STATUS FT_API FT_SetDataCharacteristics(FT_HANDLE ftHandle, uint8_t WordLength, uint8_t StopBits, uint8_t Parity)
{
    return call(d2xx().setDataCharacteristics, ftHandle, WordLength, StopBits, Parity);
}

FT_STATUS FT_API FT_GetQueueStatus(FT_HANDLE ftHandle, uint32_t* dwRxBytes)
{
    return call(d2xx().getQueueStatus, ftHandle, dwRxBytes);
}

FT_STATUS FT_API FT_OpenEx(void* pArg1, uint32_t Flags, FT_HANDLE* pHandle)
{
    return call(d2xx().openEx, pArg1, Flags, pHandle);
}

FT_STATUS FT_API FT_ListDevices(void* pArg1, void* pArg2, uint32_t Flags)
{
    return call(d2xx().listDevices, pArg1, pArg2, Flags);
}

FT_STATUS FT_API FT_CreateDeviceInfoList(uint32_t* lpdwNumDevs)
{
    return call(d2xx().createDeviceInfoList, lpdwNumDevs);
}

FT_STATUS FT_API FT_GetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* pDest, uint32_t* lpdwNumDevs)
{
    return call(d2xx().getDeviceInfoList, pDest, lpdwNumDevs);
}

}  // extern "C"
