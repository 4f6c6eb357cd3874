// The run-time lookup by name in the loaded D2XX library, one per platform.
#pragma once

namespace platform::os {

// Null when the loaded D2XX library has no function of that name.
void* findD2xxFunction(const char* name);

}  // namespace platform::os
