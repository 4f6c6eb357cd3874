// The clocks of clock.h, on top of the raw readings of os_clock.h. At time
// scale 1 every function passes the system's own value through unchanged.
// At scale f each clock is re-based at the moment the scale was set and
// then advances f times as fast as the monotonic clock, and each pause
// lasts 1/f of its length.
#include "platform/clock.h"
#include "platform/os_clock.h"
#include "platform/test_seam.h"

#include <atomic>
#include <ctime>

namespace platform {
namespace {

std::atomic<uint32_t> g_scale{1};
std::atomic<uint32_t> g_tickOffset{0};

// Origins of the scaled clocks, taken when the scale was last set.
std::atomic<int64_t> g_originMonotonicUs{0};
std::atomic<uint32_t> g_originTick{0};
std::atomic<int64_t> g_originWall100ns{0};
std::atomic<int64_t> g_originCalendarUs{0};

// Scaled microseconds since the origin.
int64_t scaledElapsedUs(uint32_t scale)
{
    return (os::monotonicMicroseconds() - g_originMonotonicUs.load(std::memory_order_relaxed)) * scale;
}

}  // namespace

void pauseMs(uint32_t milliseconds)
{
    uint32_t scale = g_scale.load(std::memory_order_relaxed);
    if (scale <= 1) {
        os::sleepMilliseconds(milliseconds);
        return;
    }
    os::sleepMicroseconds(static_cast<int64_t>(milliseconds) * 1000 / scale);
}

int64_t pauseLengthUs(uint32_t milliseconds)
{
    uint32_t scale = g_scale.load(std::memory_order_relaxed);
    return static_cast<int64_t>(milliseconds) * 1000 / (scale <= 1 ? 1 : scale);
}

uint32_t tickCount()
{
    uint32_t scale = g_scale.load(std::memory_order_relaxed);
    uint32_t offset = g_tickOffset.load(std::memory_order_relaxed);
    if (scale <= 1) return os::tickCount() + offset;
    return g_originTick.load(std::memory_order_relaxed) + static_cast<uint32_t>(scaledElapsedUs(scale) / 1000) +
           offset;
}

int64_t wallClockMs()
{
    uint32_t scale = g_scale.load(std::memory_order_relaxed);
    if (scale <= 1) return os::wallClock100ns() / 10000;
    return (g_originWall100ns.load(std::memory_order_relaxed) + scaledElapsedUs(scale) * 10) / 10000;
}

int64_t calendarSeconds()
{
    uint32_t scale = g_scale.load(std::memory_order_relaxed);
    if (scale <= 1) return os::calendarSeconds();
    return (g_originCalendarUs.load(std::memory_order_relaxed) + scaledElapsedUs(scale)) / 1000000;
}

uint32_t msToNextCalendarSecond()
{
    uint32_t scale = g_scale.load(std::memory_order_relaxed);
    if (scale <= 1) return static_cast<uint32_t>(1000 - os::wallClock100ns() / 10000 % 1000);
    int64_t calendarUs = g_originCalendarUs.load(std::memory_order_relaxed) + scaledElapsedUs(scale);
    return static_cast<uint32_t>((1000000 - calendarUs % 1000000 + 999) / 1000);
}

size_t formatLocalTime(char* buffer, size_t capacity, const char* format, int64_t calendarTime)
{
    std::tm local{};
    if (!os::localTime(calendarTime, &local)) return 0;
    return std::strftime(buffer, capacity, format, &local);
}

void yieldProcessor() { os::yieldProcessor(); }

namespace testing {

void setTimeScale(uint32_t factor)
{
    if (factor == 0) factor = 1;
    // Re-base every clock at its present reading, so that no clock jumps
    // backwards when the scale changes.
    uint32_t tick = os::tickCount();
    int64_t wall = os::wallClock100ns();
    int64_t calendarUs = os::calendarSeconds() * 1000000;
    g_originMonotonicUs.store(os::monotonicMicroseconds(), std::memory_order_relaxed);
    g_originTick.store(tick, std::memory_order_relaxed);
    g_originWall100ns.store(wall, std::memory_order_relaxed);
    g_originCalendarUs.store(calendarUs, std::memory_order_relaxed);
    g_scale.store(factor, std::memory_order_release);
}

uint32_t timeScale() { return g_scale.load(std::memory_order_relaxed); }

void setTickOffset(uint32_t offsetMs) { g_tickOffset.store(offsetMs, std::memory_order_relaxed); }

}  // namespace testing
}  // namespace platform
