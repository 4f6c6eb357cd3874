// Raw clock readings on Windows.
#include "platform/os_clock.h"

#include <windows.h>

#include <ctime>

namespace platform::os {

int64_t monotonicMicroseconds()
{
    static const LONGLONG frequency = [] {
        LARGE_INTEGER value;
        QueryPerformanceFrequency(&value);
        return value.QuadPart;
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<int64_t>(counter.QuadPart / frequency * 1000000 +
                                counter.QuadPart % frequency * 1000000 / frequency);
}

// Milliseconds of the performance counter, which counts from system start
// and has a finer grain than GetTickCount: the same reading timeGetTime
// gives, without importing winmm.
uint32_t tickCount() { return static_cast<uint32_t>(monotonicMicroseconds() / 1000); }

int64_t wallClock100ns()
{
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER value;
    value.LowPart = now.dwLowDateTime;
    value.HighPart = now.dwHighDateTime;
    return static_cast<int64_t>(value.QuadPart);
}

int64_t calendarSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

// Sleep takes whole milliseconds; a scaled pause below one millisecond
// still gives the processor away.
void sleepMicroseconds(int64_t microseconds)
{
    if (microseconds < 1000) {
        Sleep(microseconds <= 0 ? 0 : 1);
        return;
    }
    Sleep(static_cast<DWORD>(microseconds / 1000));
}

void sleepMilliseconds(uint32_t milliseconds) { Sleep(milliseconds); }

bool localTime(int64_t calendarTime, std::tm* out)
{
    time_t value = static_cast<time_t>(calendarTime);
    return localtime_s(out, &value) == 0;
}

void yieldProcessor() { SwitchToThread(); }

}  // namespace platform::os
