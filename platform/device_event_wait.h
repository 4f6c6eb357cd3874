// The length of one wait on a device event, shared by both backends.
#pragma once

#include <cstdint>

namespace platform {

// Microseconds of real time for a wait the library asks to last
// `milliseconds`, after the test seam's time scale and wait override.
int64_t deviceEventWaitUs(uint32_t milliseconds);

}  // namespace platform
