#include "sim/rx_event.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#endif

#include "platform/d2xx.h"
#include "sim/rack_registry.h"

namespace racksim {
namespace {

// Guarded by the registry's lock.
struct Watcher {
    std::condition_variable wake;
    bool running = false;
    bool lookAgain = false;
};

Watcher& watcher()
{
    static Watcher* instance = new Watcher;  // outlives every device, like the registry
    return *instance;
}

void watch()
{
    Registry& r = registry();
    Watcher& w = watcher();
    std::unique_lock<std::mutex> lock(r.mutex);
    for (;;) {
        w.lookAgain = false;
        Nanos now = clockNow();
        Nanos next = kNever;
        bool anyArmed = false;
        for (auto& device : r.devices) {
            if (!device->eventArmed()) continue;
            anyArmed = true;
            device->advance(now);
            next = std::min(next, device->notifyIfReadable(now));
        }
        if (!anyArmed) {
            w.running = false;
            return;
        }
        if (w.lookAgain) continue;
        if (next == kNever)
            w.wake.wait(lock, [&] { return w.lookAgain; });
        else
            w.wake.wait_for(lock, std::chrono::nanoseconds(next - now), [&] { return w.lookAgain; });
    }
}

}  // namespace

void wakeEventWatcher()
{
    Watcher& w = watcher();
    w.lookAgain = true;
    if (w.running) {
        w.wake.notify_one();
        return;
    }
    w.running = true;
    std::thread(watch).detach();
}

void signalEvent(void* parameter)
{
#ifdef _WIN32
    SetEvent(static_cast<HANDLE>(parameter));
#else
    EVENT_HANDLE* record = static_cast<EVENT_HANDLE*>(parameter);
    pthread_mutex_lock(&record->eMutex);
    record->iVar = 1;
    pthread_cond_signal(&record->eCondVar);
    pthread_mutex_unlock(&record->eMutex);
#endif
}

}  // namespace racksim
