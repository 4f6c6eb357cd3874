// The resource manager's events. SCardAccessStartedEvent hands out an event
// that is set once the racks are up: the discovery has ended and every rack
// it found has reported its slots (or none was found). There is no service
// that could stop, so once set it stays set. The new-reader event is the
// same moment: the readers a host can learn of appear as the racks come
// up. Each event is one object, made on the first access and closed when
// the last holder releases it, as the system's library counts its holders.
#include <mutex>

#include "pcsc/call_trace.h"
#include "pcsc/registry.h"
#include "pcsc/winscard_api.h"
#include "platform/signal.h"
#include "platform/thread.h"
#include "reader/reader.h"

namespace {

// How long the watch waits for the racks to report their slots at most; a
// rack that never does leaves the event set after this, since waiting hosts
// are better served by the readers there are.
constexpr uint32_t kLongestWaitMs = 30000;

struct SharedEvent {
    HANDLE handle = nullptr;
    int holders = 0;
};

struct Events {
    std::mutex lock;
    SharedEvent started;
    SharedEvent newReader;
    bool racksUp = false;
    bool watching = false;
};

// Never destroyed: the watch thread may still hold the lock while the
// process ends.
Events& events()
{
    static Events* instance = new Events;
    return *instance;
}

void setAll(Events& all)
{
    for (SharedEvent* event : {&all.started, &all.newReader})
        if (event->handle != nullptr) SetEvent(event->handle);
}

// The body of the watch thread.
void watchRacks()
{
    waitForDiscoveryThreads();
    // The card events tell of every rack that finishes its bring-up or is
    // lost, as they do for SCardEstablishContext.
    cardEvents().waitFor([] { return g_racks.size() == 0 || allRacksEnumerated(); },
                         platform::Signal::deadlineIn(kLongestWaitMs));
    Events& all = events();
    std::lock_guard<std::mutex> guard(all.lock);
    all.racksUp = true;
    setAll(all);
}

HANDLE access(const char* call, SharedEvent Events::*which)
{
    traceEntry(call);
    Events& all = events();
    std::lock_guard<std::mutex> guard(all.lock);
    SharedEvent& event = all.*which;
    if (event.handle == nullptr) {
        // Manual reset: every waiter sees it, and it stays set.
        event.handle = CreateEventW(nullptr, TRUE, all.racksUp ? TRUE : FALSE, nullptr);
        if (event.handle == nullptr) {
            traceResult(call, SCARD_E_NO_MEMORY);
            return nullptr;
        }
    }
    ++event.holders;
    if (!all.racksUp && !all.watching) all.watching = platform::startDetachedThread(watchRacks);
    traceResult(call, SCARD_S_SUCCESS);
    return event.handle;
}

void closeEvent(SharedEvent& event)
{
    if (event.handle != nullptr) CloseHandle(event.handle);
    event.handle = nullptr;
    event.holders = 0;
}

void release(const char* call, SharedEvent Events::*which)
{
    traceEntry(call);
    Events& all = events();
    std::lock_guard<std::mutex> guard(all.lock);
    SharedEvent& event = all.*which;
    // A release without a holder changes nothing.
    if (event.holders > 0 && --event.holders == 0) closeEvent(event);
}

}  // namespace

extern "C" {

HANDLE WINAPI SCardAccessStartedEvent(void) { return access("SCardAccessStartedEvent", &Events::started); }

void WINAPI SCardReleaseStartedEvent(void) { release("SCardReleaseStartedEvent", &Events::started); }

HANDLE WINAPI SCardAccessNewReaderEvent(void) { return access("SCardAccessNewReaderEvent", &Events::newReader); }

void WINAPI SCardReleaseNewReaderEvent(void) { release("SCardReleaseNewReaderEvent", &Events::newReader); }

void WINAPI SCardReleaseAllEvents(void)
{
    traceEntry("SCardReleaseAllEvents");
    Events& all = events();
    std::lock_guard<std::mutex> guard(all.lock);
    closeEvent(all.started);
    closeEvent(all.newReader);
}

}  // extern "C"
