// winmm is looked up at run time instead of imported: raising the
// resolution is done by the discovery thread, off the loader lock, and a
// module that is only loaded there never runs its own start-up under the
// host's LoadLibrary.
#include "platform/timer_resolution.h"

#include <windows.h>

#include <atomic>

namespace platform {
namespace {

using PeriodCall = UINT(WINAPI*)(UINT);

std::atomic<bool> g_raised{false};

PeriodCall winmmCall(const char* name)
{
    HMODULE winmm = LoadLibraryW(L"winmm.dll");
    if (winmm == nullptr) return nullptr;
    return reinterpret_cast<PeriodCall>(reinterpret_cast<void*>(GetProcAddress(winmm, name)));
}

}  // namespace

void raiseTimerResolution()
{
    if (g_raised.exchange(true)) return;
    if (PeriodCall begin = winmmCall("timeBeginPeriod")) begin(1);
    else g_raised.store(false);
}

void restoreTimerResolution()
{
    if (!g_raised.exchange(false)) return;
    if (PeriodCall end = winmmCall("timeEndPeriod")) end(1);
}

}  // namespace platform
