// The one run-time lookup by name in the D2XX library, one per platform:
// every D2XX function that is not imported (all of them in the shared
// library on Linux, the optional ones everywhere) is found through it.
#pragma once

namespace platform::os {

// Null when the D2XX library has no function of that name, or there is no
// D2XX library.
void* findD2xxFunction(const char* name);

}  // namespace platform::os
