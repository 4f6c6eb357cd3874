// Contexts. A context opens a host's conversation with the library: a
// value drawn from the system's random source, live until its release
// (connection_table.h). SCardEstablishContext also makes a host wait for
// the racks to come up, without a pause once they are; SCardIsValidContext
// tells a live context from any other value; SCardReset, which the
// published API does not have, resets all racks at once.
#include <algorithm>
#include <cstdint>
#include <string>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "link/rack.h"
#include "pcsc/connection_table.h"
#include "pcsc/registry.h"
#include "pcsc/wait_cancel.h"
#include "pcsc/winscard_api.h"
#include "platform/clock.h"
#include "platform/signal.h"
#include "reader/reader.h"

namespace {

// Scopes 0 to 2 are the published ones; 3 is let through like them.
constexpr DWORD kHighestScope = 3;
// Whole calendar seconds that SCardEstablishContext waits for the racks.
constexpr int32_t kEnumerationWaitSeconds = 15;

// Waits until every rack is enumerated or the limit of whole seconds has
// passed. A rack that never finishes is not an error: the host gets its
// context all the same, and the "Time: " entry is the only sign of it.
// The thread sleeps on the card events, which the end of a search, a rack
// that finishes its bring-up and a rack that is lost all notify; without a
// wake it sleeps to the moment its limit test can next change, when the
// calendar clock has passed the limit.
void waitForRacks()
{
    const uint32_t start = static_cast<uint32_t>(platform::calendarSeconds());
    platform::Signal& events = cardEvents();
    for (;;) {
        const uint32_t seen = events.generation();
        if (allRacksEnumerated()) return;
        const int32_t elapsed = static_cast<int32_t>(static_cast<uint32_t>(platform::calendarSeconds()) - start);
        if (elapsed > kEnumerationWaitSeconds) {
            logWrite("Time: " + decimalText(elapsed));
            return;
        }
        // The rest of this second and the whole seconds left before the
        // limit is passed (the whole limit for a calendar clock set back
        // meanwhile); never less than a millisecond, as the calendar clock
        // may lag the finer clock of the sleep by a tick.
        const int32_t secondsLeft = kEnumerationWaitSeconds - std::max(elapsed, int32_t(0));
        const uint32_t sleepMs =
            std::max<uint32_t>(platform::msToNextCalendarSecond(), 1) + static_cast<uint32_t>(secondsLeft) * 1000;
        events.wait(seen, sleepMs);
    }
}

}  // namespace

extern "C" TESSEL_EXPORT LONG WINAPI SCardEstablishContext(DWORD dwScope, LPCVOID pvReserved1, LPCVOID pvReserved2,
                                                           LPSCARDCONTEXT phContext)
{
    logWrite("Hit Establish Context\n");
    // The call writes through phContext on both of its outcomes; a null
    // pointer is refused instead of written through.
    if (phContext == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (dwScope > kHighestScope) {
        *phContext = 0;
        logWrite("Invalid value.\n");
        return SCARD_E_INVALID_VALUE;
    }
    SCARDCONTEXT context = 0;
    const LONG drawn = connection_table::openContext(context);
    if (drawn != SCARD_S_SUCCESS) {
        *phContext = 0;
        return drawn;
    }
    *phContext = context;
    logWrite("SCardEstablishContext " + decimalText(static_cast<int32_t>(*phContext)) + "\n");
    waitForRacks();
    logWrite("Success\n");
    return SCARD_S_SUCCESS;
}

// Ends the context, its connections (leaving their cards as they are) and
// their transactions, and its status-change waits, which return
// SCARD_E_CANCELLED.
extern "C" TESSEL_EXPORT LONG WINAPI SCardReleaseContext(SCARDCONTEXT hContext)
{
    logWrite("Release Context " + decimalText(static_cast<int32_t>(hContext)) + "\n");
    if (!connection_table::closeContext(hContext)) return SCARD_E_INVALID_HANDLE;
    cancelWaitsOf(hContext);
    return SCARD_S_SUCCESS;
}

extern "C" TESSEL_EXPORT LONG WINAPI SCardIsValidContext(SCARDCONTEXT hContext)
{
    logWrite("checking context is valid: \n");
    if (!connection_table::isLiveContext(hContext)) {
        logWrite("INVALID CONTEXT\n");
        return SCARD_E_INVALID_HANDLE;
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
