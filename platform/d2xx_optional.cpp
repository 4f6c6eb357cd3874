#include "platform/d2xx_optional.h"

#include <atomic>

#include "platform/d2xx_lookup.h"
#include "platform/test_seam.h"

namespace platform {
namespace {

std::atomic<bool> g_hidden{false};

void* find(const char* name) { return g_hidden.load(std::memory_order_relaxed) ? nullptr : os::findD2xxFunction(name); }

}  // namespace

FT_SetLatencyTimerFunction findSetLatencyTimer()
{
    return reinterpret_cast<FT_SetLatencyTimerFunction>(find("FT_SetLatencyTimer"));
}

FT_GetLatencyTimerFunction findGetLatencyTimer()
{
    return reinterpret_cast<FT_GetLatencyTimerFunction>(find("FT_GetLatencyTimer"));
}

FT_SetEventNotificationFunction findSetEventNotification()
{
    return reinterpret_cast<FT_SetEventNotificationFunction>(find("FT_SetEventNotification"));
}

namespace testing {

void hideOptionalD2xxFunctions(bool hidden) { g_hidden.store(hidden, std::memory_order_relaxed); }

}  // namespace testing
}  // namespace platform
