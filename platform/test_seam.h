// The test seam of the platform layer. Only tests and benchmarks include
// this header; the library never calls it, and nothing in it is exported
// from the shipped library. It is not configuration: a process that does
// not call it runs on the real clocks and writes the real log file.
#pragma once

#include <cstdint>
#include <string>

namespace platform::testing {

// Makes every pause `factor` times shorter and every clock run `factor`
// times faster, so that a 40 s time-out still comes after a 3 s pause.
// 1 restores real time. Call it while no library thread is running.
void setTimeScale(uint32_t factor);
uint32_t timeScale();

// Adds a fixed amount to the tick counter, so that a test can place the
// 32-bit wrap of the counter a few seconds ahead.
void setTickOffset(uint32_t offsetMs);

// Sends the trace log to another file; an empty path restores the
// platform's own place.
void setLogFilePath(const std::string& path);

// Makes the library read its settings (TESSEL_*) again at their next use,
// as it does once at load. Call it while no library thread is running.
void rereadSettings();

// Makes every wait on a device's receive event last this long unless the
// device signals (0: as long as the library asks), so that a test can tell
// a wake by the device from the fallback poll.
void setDeviceEventWaitMs(uint32_t milliseconds);

// Makes the run-time lookups of D2XX functions that not every D2XX
// library has find nothing, as with such a library (false: look again).
void hideOptionalD2xxFunctions(bool hidden);

// Holds every move of the log to its ".1" file for this long before the
// move, so that a test can have other threads write while a rotation is
// under way. 0, the default, holds nothing.
void setLogMovePauseMs(uint32_t milliseconds);

// Calls `hook` in every read of a mailbox, after the frame is copied and
// before the reader records it as taken, on the reading thread, so that a
// test can pause a reader there while a writer stores the next frame.
// nullptr removes it.
void setMailboxCopyHook(void (*hook)());

}  // namespace platform::testing
