// Raw clock readings on POSIX systems.
#include "platform/os_clock.h"

#include <ctime>
#include <sched.h>
#include <time.h>

namespace platform::os {

int64_t monotonicMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The boot-time clock counts from system start like timeGetTime.
uint32_t tickCount()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000);
}

int64_t wallClock100ns()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 10000000 + now.tv_nsec / 100;
}

int64_t calendarSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

void sleepMicroseconds(int64_t microseconds)
{
    if (microseconds <= 0) {
        sched_yield();
        return;
    }
    timespec duration{static_cast<time_t>(microseconds / 1000000), static_cast<long>(microseconds % 1000000) * 1000};
    while (nanosleep(&duration, &duration) != 0) {
    }
}

void sleepMilliseconds(uint32_t milliseconds) { sleepMicroseconds(static_cast<int64_t>(milliseconds) * 1000); }

bool localTime(int64_t calendarTime, std::tm* out)
{
    time_t value = static_cast<time_t>(calendarTime);
    return localtime_r(&value, out) != nullptr;
}

void yieldProcessor() { sched_yield(); }

}  // namespace platform::os
