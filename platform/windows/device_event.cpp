// An auto-reset event handle: FTD2XX.dll sets it, a wait takes it back.
#include "platform/device_event.h"

#include <windows.h>

#include "platform/device_event_wait.h"

namespace platform {

struct DeviceEvent::State {
    HANDLE event;
};

DeviceEvent::DeviceEvent()
{
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (event != nullptr) state_ = new State{event};
}

DeviceEvent::~DeviceEvent()
{
    if (state_ == nullptr) return;
    CloseHandle(state_->event);
    delete state_;
}

void* DeviceEvent::notificationParameter() { return state_ != nullptr ? state_->event : nullptr; }

void DeviceEvent::wait(uint32_t milliseconds)
{
    if (state_ == nullptr) return;
    // The system times waits in whole milliseconds: round up, so that a
    // shortened wait never becomes a spin.
    int64_t waitUs = deviceEventWaitUs(milliseconds);
    WaitForSingleObject(state_->event, static_cast<DWORD>((waitUs + 999) / 1000));
}

void DeviceEvent::wake()
{
    if (state_ != nullptr) SetEvent(state_->event);
}

}  // namespace platform
