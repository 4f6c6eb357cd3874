// The EVENT_HANDLE record that FTDI's Linux library signals. The library
// signals the condition under the mutex; the int is taken as a flag that
// the signaller may set, so that a signal given while no thread waits is
// not lost. A signaller that leaves it alone costs a missed signal at most
// one wait.
#include "platform/device_event.h"

#include <ctime>

#include "platform/d2xx.h"
#include "platform/device_event_wait.h"

namespace platform {

struct DeviceEvent::State {
    EVENT_HANDLE record;
};

DeviceEvent::DeviceEvent()
{
    State* state = new State{};
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    bool made = pthread_cond_init(&state->record.eCondVar, &attributes) == 0;
    pthread_condattr_destroy(&attributes);
    if (made && pthread_mutex_init(&state->record.eMutex, nullptr) != 0) {
        pthread_cond_destroy(&state->record.eCondVar);
        made = false;
    }
    if (!made) {
        delete state;
        return;
    }
    state_ = state;
}

DeviceEvent::~DeviceEvent()
{
    if (state_ == nullptr) return;
    pthread_cond_destroy(&state_->record.eCondVar);
    pthread_mutex_destroy(&state_->record.eMutex);
    delete state_;
}

void* DeviceEvent::notificationParameter() { return state_ != nullptr ? &state_->record : nullptr; }

void DeviceEvent::wait(uint32_t milliseconds)
{
    if (state_ == nullptr) return;
    int64_t waitUs = deviceEventWaitUs(milliseconds);
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    int64_t nanoseconds = deadline.tv_nsec + waitUs % 1000000 * 1000;
    deadline.tv_sec += static_cast<time_t>(waitUs / 1000000 + nanoseconds / 1000000000);
    deadline.tv_nsec = static_cast<long>(nanoseconds % 1000000000);

    EVENT_HANDLE& record = state_->record;
    pthread_mutex_lock(&record.eMutex);
    // One wake-up, whichever comes: a signal, a spurious wake or the
    // deadline. The caller polls the device after every wait anyway.
    if (record.iVar == 0) pthread_cond_timedwait(&record.eCondVar, &record.eMutex, &deadline);
    record.iVar = 0;
    pthread_mutex_unlock(&record.eMutex);
}

void DeviceEvent::wake()
{
    if (state_ == nullptr) return;
    EVENT_HANDLE& record = state_->record;
    pthread_mutex_lock(&record.eMutex);
    record.iVar = 1;
    pthread_cond_broadcast(&record.eCondVar);
    pthread_mutex_unlock(&record.eMutex);
}

}  // namespace platform
