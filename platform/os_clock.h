// Raw readings of the operating system, one implementation per platform
// (posix/, windows/). Only scaled_clock.cpp calls these; everything else
// goes through clock.h, which applies the test seam's time scale.
#pragma once

#include <cstdint>
#include <ctime>

namespace platform::os {

int64_t monotonicMicroseconds();
uint32_t tickCount();          // milliseconds since system start, wraps
int64_t wallClock100ns();      // 100-ns ticks of the wall clock
int64_t calendarSeconds();
void sleepMicroseconds(int64_t microseconds);
void sleepMilliseconds(uint32_t milliseconds);
bool localTime(int64_t calendarTime, std::tm* out);
void yieldProcessor();

}  // namespace platform::os
