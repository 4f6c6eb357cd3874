// The process's own environment block, not the run-time library's copy of
// it: a host that sets a variable with SetEnvironmentVariable before it
// loads the DLL is seen, whatever run-time it was built with.
#include "platform/environment.h"

#include <windows.h>

namespace platform {

bool environmentVariable(const char* name, std::string& value)
{
    DWORD needed = GetEnvironmentVariableA(name, nullptr, 0);
    if (needed == 0) return false;
    std::string buffer(needed, '\0');
    DWORD written = GetEnvironmentVariableA(name, buffer.data(), needed);
    if (written == 0 || written >= needed) return false;
    buffer.resize(written);
    value = buffer;
    return true;
}

}  // namespace platform

namespace platform {

uint32_t processId() { return static_cast<uint32_t>(GetCurrentProcessId()); }

}  // namespace platform
