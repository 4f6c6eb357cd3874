// Clocks and pauses. Every wait and every time-out of the library goes
// through these functions, so that the test seam (test_seam.h) can shorten
// all of them by one factor while their ratios stay as they are.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Blocks the calling thread for the given number of milliseconds (the
// semantics of the system's Sleep).
void pauseMs(uint32_t milliseconds);

// How long a pause of `milliseconds` lasts, in microseconds of real time:
// for waits that the system times itself, such as a wait on an event.
int64_t pauseLengthUs(uint32_t milliseconds);

// Milliseconds since the system started, unsigned 32 bits; wraps after
// about 49.7 days (the semantics of timeGetTime).
uint32_t tickCount();

// The system's wall clock in milliseconds: its count of 100-nanosecond
// ticks divided by 10,000.
int64_t wallClockMs();

// The calendar time in whole seconds (the semantics of time(nullptr)).
int64_t calendarSeconds();

// Milliseconds (1 to 1,000) until calendarSeconds() next moves on, as far
// as the finer wall clock tells: how long a wait that tests whole calendar
// seconds may sleep before its test can change.
uint32_t msToNextCalendarSecond();

// Formats the given calendar time as local time with a strftime format.
// Returns the number of characters written, 0 on failure.
size_t formatLocalTime(char* buffer, size_t capacity, const char* format, int64_t calendarTime);

// Gives the processor back to another ready thread without sleeping, for
// the few instructions' wait of a sequence-counted copy behind a writer.
void yieldProcessor();

}  // namespace platform
