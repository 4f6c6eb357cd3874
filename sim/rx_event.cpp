#include "sim/rx_event.h"

#include <atomic>
#include <chrono>
#include <ctime>
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

// The watcher's processor time: what its ended runs used, and the running
// one's so far.
std::atomic<long long> g_endedRunsCpuUs{0};
std::atomic<long long> g_cpuUs{0};

long long ownThreadCpuUs()
{
#ifdef _WIN32
    FILETIME created, exited, kernel, user;
    if (!GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user)) return 0;
    auto count = [](const FILETIME& t) {
        return static_cast<long long>((static_cast<unsigned long long>(t.dwHighDateTime) << 32) | t.dwLowDateTime);
    };
    return (count(kernel) + count(user)) / 10;
#else
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<long long>(t.tv_sec) * 1000000 + t.tv_nsec / 1000;
#endif
}

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
    const long long before = g_endedRunsCpuUs.load();
    for (;;) {
        g_cpuUs.store(before + ownThreadCpuUs());
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
            g_endedRunsCpuUs.store(before + ownThreadCpuUs());
            g_cpuUs.store(g_endedRunsCpuUs.load());
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

long long watcherCpuUs() { return g_cpuUs.load(); }

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
