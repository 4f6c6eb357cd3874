#include "platform/device_event_wait.h"

#include <atomic>

#include "platform/clock.h"
#include "platform/test_seam.h"

namespace platform {
namespace {

std::atomic<uint32_t> g_waitOverrideMs{0};

}  // namespace

int64_t deviceEventWaitUs(uint32_t milliseconds)
{
    uint32_t overrideMs = g_waitOverrideMs.load(std::memory_order_relaxed);
    return pauseLengthUs(overrideMs != 0 ? overrideMs : milliseconds);
}

namespace testing {

void setDeviceEventWaitMs(uint32_t milliseconds) { g_waitOverrideMs.store(milliseconds, std::memory_order_relaxed); }

}  // namespace testing
}  // namespace platform
