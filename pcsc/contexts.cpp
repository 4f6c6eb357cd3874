// Contexts. A context here is a number with little behind it: there is no
// resource manager to open a conversation with. The library only keeps the
// values in use, so that no two live contexts are equal and a cancel aimed
// at one context reaches no other. What the calls really do is
// make a host wait for the racks (SCardEstablishContext), report whether
// every rack has finished its bring-up (SCardIsValidContext), and reset all
// racks at once (SCardReset, which the published API does not have).
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <unordered_set>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/registry.h"
#include "pcsc/winscard_api.h"
#include "platform/clock.h"
#include "platform/sync.h"

namespace {

// Scopes 0 to 2 are the published ones; 3 is let through like them.
constexpr DWORD kHighestScope = 3;
// Whole calendar seconds that SCardEstablishContext waits for the racks.
constexpr int32_t kEnumerationWaitSeconds = 15;
// Every establish pauses this long first, even a call with a bad scope.
constexpr uint32_t kEstablishPauseMs = 1000;
constexpr uint32_t kEnumerationPollMs = 5;
constexpr LONG kInvalidContextResult = 6;  // ERROR_INVALID_HANDLE

// The contexts handed out and not yet released. A cancel is aimed at one
// context, so two live contexts must never share a value, even where the
// run-time keeps rand's state per thread and every thread draws the same
// first number. Made on first use and never destroyed.
struct LiveContexts {
    platform::ExclusiveLock lock;
    std::unordered_set<SCARDCONTEXT> values;
};

LiveContexts& liveContexts()
{
    static LiveContexts* live = new LiveContexts;
    return *live;
}

// Draws as before, and draws again while the value belongs to a live
// context; the first context of a process is the first draw, as it always
// was. The generator was seeded once by the discovery thread.
SCARDCONTEXT drawUnusedContext()
{
    LiveContexts& live = liveContexts();
    std::lock_guard<platform::ExclusiveLock> guard(live.lock);
    for (;;) {
        const SCARDCONTEXT value = static_cast<SCARDCONTEXT>(std::rand() % 0x7FFFFFFF);
        if (live.values.insert(value).second) return value;
    }
}

void forgetContext(SCARDCONTEXT value)
{
    LiveContexts& live = liveContexts();
    std::lock_guard<platform::ExclusiveLock> guard(live.lock);
    live.values.erase(value);
}

// Polls until every rack is enumerated or the limit of whole seconds has
// passed. A rack that never finishes is not an error: the host gets its
// context all the same, and the "Time: " entry is the only sign of it.
void waitForRacks()
{
    uint32_t start = static_cast<uint32_t>(platform::calendarSeconds());
    for (;;) {
        if (allRacksEnumerated()) return;
        int32_t elapsed = static_cast<int32_t>(static_cast<uint32_t>(platform::calendarSeconds()) - start);
        if (elapsed > kEnumerationWaitSeconds) {
            logWrite("Time: " + decimalText(elapsed));
            return;
        }
        platform::pauseMs(kEnumerationPollMs);
    }
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardEstablishContext(DWORD dwScope, LPCVOID pvReserved1, LPCVOID pvReserved2,
                                                           LPSCARDCONTEXT phContext)
{
    logWrite("Hit Establish Context\n");
    platform::pauseMs(kEstablishPauseMs);
    // The call writes through phContext on both of its outcomes; a null
    // pointer is refused instead of written through.
    if (phContext == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (dwScope > kHighestScope) {
        *phContext = 0;
        logWrite("Invalid value.\n");
        return SCARD_E_INVALID_VALUE;
    }
    // A context may be 0; it never equals another live one.
    *phContext = drawUnusedContext();
    logWrite("SCardEstablishContext " + decimalText(static_cast<int32_t>(*phContext)) + "\n");
    waitForRacks();
    logWrite("Success\n");
    return SCARD_S_SUCCESS;
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardReleaseContext(SCARDCONTEXT hContext)
{
    logWrite("Release Context " + decimalText(static_cast<int32_t>(hContext)) + "\n");
    // Any value is accepted; releasing one frees it to be drawn again.
    forgetContext(hContext);
    return SCARD_S_SUCCESS;
}

// Asks about the racks, not about the context: valid once every rack has
// finished enumeration, and so also with no racks at all.
extern "C" TESSEL_EXPORT LONG WINAPI SCardIsValidContext(SCARDCONTEXT hContext)
{
    logWrite("checking context is valid: \n");
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) {
        if (!g_racks[i]->enumerated()) {
            logWrite("INVALID CONTEXT\n");
            return kInvalidContextResult;
        }
    }
    logWrite("VALID CONTEXT\n");
    return SCARD_S_SUCCESS;
}

// Resets every rack in turn. No enumeration follows: readers, their card
// states and the enumerated flags stay as they are.
extern "C" TESSEL_EXPORT void WINAPI SCardReset(void)
{
    logWrite("Reset racks\n");
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) g_racks[i]->reset();
}
