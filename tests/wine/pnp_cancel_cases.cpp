// What an unmodified plug-and-play client does, against winscard.dll under
// Wine with its real time: it probes "\\?PnP?\Notification", waits on every
// reader and the pseudo-reader, and stops a wait with SCardCancel from
// another thread; two threads draw their contexts and cancel only their own.
#include <cstdio>
#include <thread>

#include "host_cases.h"

namespace {

const char kPnp[] = "\\\\?PnP?\\Notification";
const BYTE kAtr[] = {0x3B, 0x80, 0x01};
// Every wait that should end early is given this long; it only bounds a
// failure.
const DWORD kLongWaitMs = 20000;

void check(bool ok, const char* what, LONG result)
{
    ::check(ok, "%s (0x%08lx)", what, static_cast<unsigned long>(result));
}

struct Calls {
    decltype(&SCardEstablishContext) establish;
    decltype(&SCardReleaseContext) release;
    decltype(&SCardGetStatusChangeA) getStatusChange;
    decltype(&SCardCancel) cancel;
    decltype(&rackSimInsertCard) insertCard;
    decltype(&rackSimRemoveCard) removeCard;
};

SCARD_READERSTATEA stateOf(const char* name, DWORD known)
{
    SCARD_READERSTATEA state = {};
    state.szReader = name;
    state.dwCurrentState = known;
    return state;
}

// Waits on another thread; the pause before the cancel gives it time to be
// waiting, as a user's stop comes long after the wait began.
struct BackgroundWait {
    BackgroundWait(const Calls& calls, SCARDCONTEXT context, SCARD_READERSTATEA* states, DWORD count)
        : thread([=] { result = calls.getStatusChange(context, kLongWaitMs, states, count); })
    {
        Sleep(300);
    }
    LONG join()
    {
        thread.join();
        return result;
    }
    LONG result = 0;
    std::thread thread;
};

void probeAndEvent(const Calls& calls, SCARDCONTEXT context, const char* emptyReader, int device, int slot)
{
    SCARD_READERSTATEA probe = stateOf(kPnp, SCARD_STATE_UNAWARE);
    LONG result = calls.getStatusChange(context, 0, &probe, 1);
    check((probe.dwEventState & SCARD_STATE_UNKNOWN) == 0 && (probe.dwEventState >> 16) != 0,
          "the pseudo-reader is known and carries the number of readers", result);

    SCARD_READERSTATEA alone = stateOf(kPnp, probe.dwEventState);
    result = calls.getStatusChange(context, 200, &alone, 1);
    check(result == SCARD_E_TIMEOUT, "a wait on the pseudo-reader alone runs to its time-out", result);

    SCARD_READERSTATEA states[2] = {stateOf(emptyReader, SCARD_STATE_EMPTY), stateOf(kPnp, probe.dwEventState)};
    std::thread inserter([&] {
        Sleep(300);
        calls.insertCard(device, slot, kAtr, sizeof kAtr);
    });
    result = calls.getStatusChange(context, kLongWaitMs, states, 2);
    inserter.join();
    check(result == SCARD_S_SUCCESS && (states[0].dwEventState & SCARD_STATE_PRESENT) != 0 &&
              (states[1].dwEventState & SCARD_STATE_CHANGED) == 0,
          "a card event is seen beside the pseudo-reader, which stays unchanged", result);

    states[0].dwCurrentState = SCARD_STATE_PRESENT;
    states[1].dwCurrentState = states[1].dwEventState;
    BackgroundWait wait(calls, context, states, 2);
    const DWORD cancelledAt = GetTickCount();
    calls.cancel(context);
    result = wait.join();
    std::printf("INFO: the cancelled wait returned %lu ms after SCardCancel\n", GetTickCount() - cancelledAt);
    check(result == SCARD_E_CANCELLED, "SCardCancel from another thread ends the wait", result);
}

// Each thread draws its first context; with a generator per thread they
// would be equal but for the library's check.
void twoContexts(const Calls& calls, const char* reader, int device, int slot)
{
    SCARDCONTEXT contexts[2] = {};
    std::thread first([&] { calls.establish(SCARD_SCOPE_USER, nullptr, nullptr, &contexts[0]); });
    std::thread second([&] { calls.establish(SCARD_SCOPE_USER, nullptr, nullptr, &contexts[1]); });
    first.join();
    second.join();
    check(contexts[0] != contexts[1], "two threads' first contexts differ", static_cast<LONG>(contexts[1]));

    SCARD_READERSTATEA cancelled = stateOf(reader, SCARD_STATE_PRESENT);
    SCARD_READERSTATEA kept = stateOf(reader, SCARD_STATE_PRESENT);
    BackgroundWait cancelledWait(calls, contexts[0], &cancelled, 1);
    BackgroundWait keptWait(calls, contexts[1], &kept, 1);
    calls.cancel(contexts[0]);
    LONG result = cancelledWait.join();
    check(result == SCARD_E_CANCELLED, "the cancelled context's wait ends", result);
    calls.removeCard(device, slot);
    result = keptWait.join();
    check(result == SCARD_S_SUCCESS && (kept.dwEventState & SCARD_STATE_EMPTY) != 0,
          "the other context's wait goes on and sees the card leave", result);
    calls.release(contexts[0]);
    calls.release(contexts[1]);
}

}  // namespace

// Slot 2 of rack W1 is empty when the cases start, and empty again when
// they end.
int runPnpCancelCases(Host& host)
{
    const Calls calls = {host.api.SCardEstablishContext, host.api.SCardReleaseContext,
                         host.api.SCardGetStatusChangeA, host.api.SCardCancel,
                         host.sim.rackSimInsertCard,     host.sim.rackSimRemoveCard};
    const char* emptyReader = "Tessel W1 R2";
    const int device = kW1, slot = 2;
    SCARDCONTEXT context = 0;
    LONG result = calls.establish(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    check(result == SCARD_S_SUCCESS, "a context for the plug-and-play client", result);
    probeAndEvent(calls, context, emptyReader, device, slot);
    calls.release(context);
    twoContexts(calls, emptyReader, device, slot);
    return 0;
}
