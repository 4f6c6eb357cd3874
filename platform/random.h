// Unpredictable numbers from the operating system's own random source, for
// the values a host must not be able to guess (contexts and card handles).
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Fills `size` bytes from the system's random source (getrandom on Linux,
// RtlGenRandom on Windows). False if the source failed; the bytes are then
// not to be used.
bool fillRandom(void* destination, size_t size);

}  // namespace platform
