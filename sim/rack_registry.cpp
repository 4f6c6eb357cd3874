#include "sim/rack_registry.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

namespace racksim {

namespace {

using Lock = std::lock_guard<std::mutex>;

// Device type and USB ids reported in the device list: an FT232R with
// FTDI's own vendor and product id.
constexpr uint32_t kDeviceType = 5;
constexpr uint32_t kUsbId = 0x04036001;

RackDevice* byHandle(FT_HANDLE handle)
{
    auto& handles = registry().handles;
    auto found = handles.find(reinterpret_cast<uintptr_t>(handle));
    return found == handles.end() ? nullptr : found->second;
}

// What a call on a handle that names no open device gets.
FT_STATUS goneStatus(FT_HANDLE handle)
{
    Registry& r = registry();
    auto found = r.unpluggedHandles.find(reinterpret_cast<uintptr_t>(handle));
    if (found == r.unpluggedHandles.end()) return FT_INVALID_HANDLE;
    return found->second == r.listGeneration ? FT_IO_ERROR : FT_DEVICE_NOT_FOUND;
}

void copyText(char* to, size_t capacity, const std::string& from)
{
    size_t n = std::min(capacity - 1, from.size());
    std::memcpy(to, from.data(), n);
    std::memset(to + n, 0, capacity - n);
}

}  // namespace

Registry& registry()
{
    static Registry* instance = new Registry;
    return *instance;
}

Nanos clockNow()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

RackDevice* deviceAt(int index)
{
    auto& devices = registry().devices;
    if (index < 0 || static_cast<size_t>(index) >= devices.size()) return nullptr;
    return devices[static_cast<size_t>(index)].get();
}

void setPluggedLocked(RackDevice& device, bool plugged)
{
    Registry& r = registry();
    if (device.plugged() == plugged) return;
    device.setPlugged(plugged);
    if (plugged) return;
    for (auto entry = r.handles.begin(); entry != r.handles.end();) {
        if (entry->second != &device) {
            ++entry;
            continue;
        }
        r.unpluggedHandles[entry->first] = r.listGeneration;
        entry = r.handles.erase(entry);
    }
    device.close();
}

FT_STATUS hostOpen(void* arg, uint32_t flags, FT_HANDLE* handle)
{
    if (!arg || !handle) return FT_INVALID_PARAMETER;
    if (flags != FT_OPEN_BY_SERIAL_NUMBER && flags != FT_OPEN_BY_DESCRIPTION) return FT_INVALID_PARAMETER;
    std::string wanted(static_cast<const char*>(arg));
    Registry& r = registry();
    Lock lock(r.mutex);
    for (auto& device : r.devices) {
        const std::string& name = flags == FT_OPEN_BY_SERIAL_NUMBER ? device->serial() : device->description();
        if (name != wanted || !device->plugged()) continue;
        if (device->isOpen() || device->openFails) return FT_DEVICE_NOT_OPENED;
        uintptr_t id = r.nextHandle++;
        r.handles[id] = device.get();
        device->open(clockNow());
        *handle = reinterpret_cast<FT_HANDLE>(id);
        return FT_OK;
    }
    return FT_DEVICE_NOT_FOUND;
}

FT_STATUS hostClose(FT_HANDLE handle)
{
    Registry& r = registry();
    Lock lock(r.mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return r.unpluggedHandles.erase(reinterpret_cast<uintptr_t>(handle)) != 0 ? FT_OK : FT_INVALID_HANDLE;
    r.handles.erase(reinterpret_cast<uintptr_t>(handle));
    device->close();
    return FT_OK;
}

FT_STATUS hostRead(FT_HANDLE handle, void* buffer, uint32_t wanted, uint32_t* got)
{
    if (!got || (!buffer && wanted > 0)) return FT_INVALID_PARAMETER;
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    *got = static_cast<uint32_t>(device->read(static_cast<uint8_t*>(buffer), wanted, clockNow()));
    return FT_OK;
}

FT_STATUS hostWrite(FT_HANDLE handle, const void* buffer, uint32_t count, uint32_t* written)
{
    if (!written || (!buffer && count > 0)) return FT_INVALID_PARAMETER;
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    if (!device->write(static_cast<const uint8_t*>(buffer), count, clockNow())) {
        *written = 0;
        return FT_IO_ERROR;
    }
    *written = count;
    return FT_OK;
}

FT_STATUS hostSetBaudRate(FT_HANDLE handle, uint32_t baud)
{
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    device->setLine(baud);
    return FT_OK;
}

FT_STATUS hostSetDataCharacteristics(FT_HANDLE handle, uint8_t wordLength, uint8_t stopBits, uint8_t parity)
{
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    device->setCharacteristics(wordLength, stopBits, parity);
    return FT_OK;
}

FT_STATUS hostQueueStatus(FT_HANDLE handle, uint32_t* waiting)
{
    if (!waiting) return FT_INVALID_PARAMETER;
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    *waiting = static_cast<uint32_t>(device->queued(clockNow()));
    return FT_OK;
}

// A timer of 0 ms is refused; 1 to 255 are taken.
FT_STATUS hostSetLatencyTimer(FT_HANDLE handle, uint8_t milliseconds)
{
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    if (milliseconds < 1) return FT_INVALID_PARAMETER;
    if (device->refusesLatencyTimer) return FT_OTHER_ERROR;
    Nanos now = clockNow();
    device->advance(now);
    device->hostSetLatencyTimer(static_cast<Nanos>(milliseconds) * kMillisecond);
    return FT_OK;
}

FT_STATUS hostGetLatencyTimer(FT_HANDLE handle, uint8_t* milliseconds)
{
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    if (milliseconds == nullptr) return FT_INVALID_PARAMETER;
    *milliseconds = static_cast<uint8_t>(device->latencyTimer() / kMillisecond);
    return FT_OK;
}

FT_STATUS hostSetEventNotification(FT_HANDLE handle, uint32_t mask, void* parameter)
{
    Lock lock(registry().mutex);
    RackDevice* device = byHandle(handle);
    if (!device) return goneStatus(handle);
    // Only received characters are modelled; a mask without them, or no
    // event, stops the notification.
    device->setEventNotification(mask & FT_EVENT_RXCHAR, parameter);
    return FT_OK;
}

FT_STATUS hostListDevices(void* arg1, void* arg2, uint32_t flags)
{
    if (flags != FT_LIST_NUMBER_ONLY || !arg1) return FT_INVALID_PARAMETER;
    Lock lock(registry().mutex);
    uint32_t plugged = 0;
    for (auto& device : registry().devices)
        if (device->plugged()) ++plugged;
    *static_cast<uint32_t*>(arg1) = plugged;
    return FT_OK;
}

FT_STATUS hostCreateDeviceInfoList(uint32_t* count)
{
    if (!count) return FT_INVALID_PARAMETER;
    Registry& r = registry();
    Lock lock(r.mutex);
    r.infoList.clear();
    for (auto& device : r.devices)
        if (device->plugged()) r.infoList.push_back(device.get());
    ++r.listGeneration;
    r.infoListMade = true;
    *count = static_cast<uint32_t>(r.infoList.size());
    return FT_OK;
}

FT_STATUS hostGetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* records, uint32_t* count)
{
    if (!records || !count) return FT_INVALID_PARAMETER;
    Registry& r = registry();
    Lock lock(r.mutex);
    std::vector<RackDevice*> list = r.infoList;
    if (!r.infoListMade)
        for (auto& device : r.devices)
            if (device->plugged()) list.push_back(device.get());
    for (size_t i = 0; i < list.size(); ++i) {
        FT_DEVICE_LIST_INFO_NODE& record = records[i];
        std::memset(&record, 0, sizeof record);
        RackDevice* device = list[i];
        record.Type = kDeviceType;
        record.ID = kUsbId;
        record.LocId = static_cast<uint32_t>(i + 1);
        copyText(record.SerialNumber, sizeof record.SerialNumber, device->serial());
        copyText(record.Description, sizeof record.Description, device->description());
        if (device->isOpen()) {
            record.Flags = 1;
            for (auto& entry : r.handles)
                if (entry.second == device) record.ftHandle = reinterpret_cast<FT_HANDLE>(entry.first);
        }
    }
    *count = static_cast<uint32_t>(list.size());
    return FT_OK;
}

}  // namespace racksim
