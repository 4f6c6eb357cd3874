// The emulator's devices, in list order, with the handles the host holds.
// One lock guards them all: every D2XX call and every control call runs
// under it, so the devices themselves need none.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/d2xx.h"
#include "sim/rack_device.h"

namespace racksim {

struct Registry {
    std::mutex mutex;
    std::vector<std::unique_ptr<RackDevice>> devices;
    // Handles are never reused, so that a stale one finds nothing.
    std::map<uintptr_t, RackDevice*> handles;
    uintptr_t nextHandle = 0x1000;
    // Handles of devices unplugged while the host held them open, with the
    // device-list generation of the unplug. Calls on them fail with
    // FT_IO_ERROR, and with FT_DEVICE_NOT_FOUND once a newer device list
    // (FT_CreateDeviceInfoList) no longer holds the device, as FTDI's
    // library does; FT_Close frees them.
    std::map<uintptr_t, uint32_t> unpluggedHandles;
    uint32_t listGeneration = 0;
    // The list FT_CreateDeviceInfoList made, for FT_GetDeviceInfoList.
    std::vector<RackDevice*> infoList;
    bool infoListMade = false;
};

// The one registry of the process. It is never destroyed: the library's
// worker threads may still poll a device while the process exits.
Registry& registry();

// Nanoseconds on a steady clock. Call with the registry's lock held, so
// that times stamped by different threads follow the order of their calls.
Nanos clockNow();

// The device at a list index, or null. Lock held.
RackDevice* deviceAt(int index);

// Takes a device off the USB bus or puts it back; lock held. Unplugging
// closes it and turns the host's handles to it into unplugged ones.
void setPluggedLocked(RackDevice& device, bool plugged);

// The D2XX functions, as the face passes them on.
FT_STATUS hostOpen(void* arg, uint32_t flags, FT_HANDLE* handle);
FT_STATUS hostClose(FT_HANDLE handle);
FT_STATUS hostRead(FT_HANDLE handle, void* buffer, uint32_t wanted, uint32_t* got);
FT_STATUS hostWrite(FT_HANDLE handle, const void* buffer, uint32_t count, uint32_t* written);
FT_STATUS hostSetBaudRate(FT_HANDLE handle, uint32_t baud);
FT_STATUS hostSetDataCharacteristics(FT_HANDLE handle, uint8_t wordLength, uint8_t stopBits, uint8_t parity);
FT_STATUS hostQueueStatus(FT_HANDLE handle, uint32_t* waiting);
FT_STATUS hostSetLatencyTimer(FT_HANDLE handle, uint8_t milliseconds);
FT_STATUS hostGetLatencyTimer(FT_HANDLE handle, uint8_t* milliseconds);
FT_STATUS hostSetEventNotification(FT_HANDLE handle, uint32_t mask, void* parameter);
FT_STATUS hostListDevices(void* arg1, void* arg2, uint32_t flags);
FT_STATUS hostCreateDeviceInfoList(uint32_t* count);
FT_STATUS hostGetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* records, uint32_t* count);

}  // namespace racksim
