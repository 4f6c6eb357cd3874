// The process environment, where the library's settings (TESSEL_*) come
// from. Each setting is read once, when the library loads.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// The value of the environment variable `name`; false when it is not set.
bool environmentVariable(const char* name, std::string& value);

}  // namespace platform

namespace platform {

// This process's id, as the system's tools show it.
uint32_t processId();

}  // namespace platform
