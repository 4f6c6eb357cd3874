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
// Slot 2 of rack W1 is empty when the cases start, and empty again when
// they end.
const char kEmptyReader[] = "Tessel W1 R2";
const int kSlot = 2;

void check(bool ok, const char* what, LONG result)
{
    ::check(ok, "%s (0x%08lx)", what, static_cast<unsigned long>(result));
}

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
    BackgroundWait(const Api& api, SCARDCONTEXT context, SCARD_READERSTATEA* states, DWORD count)
        : thread([=, &api] { result = api.SCardGetStatusChangeA(context, kLongWaitMs, states, count); })
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

void probeAndEvent(Host& host, SCARDCONTEXT context)
{
    const Api& api = host.api;
    SCARD_READERSTATEA probe = stateOf(kPnp, SCARD_STATE_UNAWARE);
    LONG result = api.SCardGetStatusChangeA(context, 0, &probe, 1);
    check((probe.dwEventState & SCARD_STATE_UNKNOWN) == 0 && (probe.dwEventState >> 16) != 0,
          "the pseudo-reader is known and carries the number of readers", result);

    SCARD_READERSTATEA alone = stateOf(kPnp, probe.dwEventState);
    result = api.SCardGetStatusChangeA(context, 200, &alone, 1);
    check(result == SCARD_E_TIMEOUT, "a wait on the pseudo-reader alone runs to its time-out", result);

    SCARD_READERSTATEA states[2] = {stateOf(kEmptyReader, SCARD_STATE_EMPTY), stateOf(kPnp, probe.dwEventState)};
    std::thread inserter([&host] {
        Sleep(300);
        host.sim.rackSimInsertCard(kW1, kSlot, kAtr, sizeof kAtr);
    });
    result = api.SCardGetStatusChangeA(context, kLongWaitMs, states, 2);
    inserter.join();
    check(result == SCARD_S_SUCCESS && (states[0].dwEventState & SCARD_STATE_PRESENT) != 0 &&
              (states[1].dwEventState & SCARD_STATE_CHANGED) == 0,
          "a card event is seen beside the pseudo-reader, which stays unchanged", result);

    states[0].dwCurrentState = SCARD_STATE_PRESENT;
    states[1].dwCurrentState = states[1].dwEventState;
    BackgroundWait wait(api, context, states, 2);
    const DWORD cancelledAt = GetTickCount();
    api.SCardCancel(context);
    result = wait.join();
    std::printf("INFO: the cancelled wait returned %lu ms after SCardCancel\n", GetTickCount() - cancelledAt);
    check(result == SCARD_E_CANCELLED, "SCardCancel from another thread ends the wait", result);
}

// Each thread draws its first context; with a generator per thread they
// would be equal but for the library's check.
void twoContexts(Host& host)
{
    const Api& api = host.api;
    SCARDCONTEXT contexts[2] = {};
    std::thread first([&] { api.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &contexts[0]); });
    std::thread second([&] { api.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &contexts[1]); });
    first.join();
    second.join();
    check(contexts[0] != contexts[1], "two threads' first contexts differ", static_cast<LONG>(contexts[1]));

    SCARD_READERSTATEA cancelled = stateOf(kEmptyReader, SCARD_STATE_PRESENT);
    SCARD_READERSTATEA kept = stateOf(kEmptyReader, SCARD_STATE_PRESENT);
    BackgroundWait cancelledWait(api, contexts[0], &cancelled, 1);
    BackgroundWait keptWait(api, contexts[1], &kept, 1);
    api.SCardCancel(contexts[0]);
    LONG result = cancelledWait.join();
    check(result == SCARD_E_CANCELLED, "the cancelled context's wait ends", result);
    host.sim.rackSimRemoveCard(kW1, kSlot);
    result = keptWait.join();
    check(result == SCARD_S_SUCCESS && (kept.dwEventState & SCARD_STATE_EMPTY) != 0,
          "the other context's wait goes on and sees the card leave", result);
    api.SCardReleaseContext(contexts[0]);
    api.SCardReleaseContext(contexts[1]);
}

}  // namespace

int runPnpCancelCases(Host& host)
{
    SCARDCONTEXT context = 0;
    LONG result = host.api.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    check(result == SCARD_S_SUCCESS, "a context for the plug-and-play client", result);
    probeAndEvent(host, context);
    host.api.SCardReleaseContext(context);
    twoContexts(host);
    return 0;
}
