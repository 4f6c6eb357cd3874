// The event a D2XX device signals when it has received bytes
// (FT_SetEventNotification with FT_EVENT_RXCHAR). On Windows it is an event
// handle; FTDI's Linux library takes an EVENT_HANDLE record instead. Either
// way the receive thread waits on it with a time limit, so an event that is
// missed costs no more than that limit.
#pragma once

#include <cstdint>

namespace platform {

class DeviceEvent {
public:
    DeviceEvent();
    ~DeviceEvent();
    DeviceEvent(const DeviceEvent&) = delete;
    DeviceEvent& operator=(const DeviceEvent&) = delete;

    // False if the system could not make the event.
    bool valid() const { return state_ != nullptr; }
    // The argument FT_SetEventNotification takes for this event.
    void* notificationParameter();

    // Returns once the device signals, or after `milliseconds` (a pause
    // like any other, shortened by the test seam's time scale).
    void wait(uint32_t milliseconds);
    // Ends the current or the next wait at once.
    void wake();

private:
    struct State;
    State* state_ = nullptr;
};

}  // namespace platform
