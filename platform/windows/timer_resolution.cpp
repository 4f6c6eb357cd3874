#include "platform/timer_resolution.h"

#include <windows.h>
#include <mmsystem.h>

#include <atomic>

namespace platform {
namespace {
std::atomic<bool> g_raised{false};
}

void raiseTimerResolution()
{
    if (!g_raised.exchange(true)) timeBeginPeriod(1);
}

void restoreTimerResolution()
{
    if (g_raised.exchange(false)) timeEndPeriod(1);
}

}  // namespace platform
