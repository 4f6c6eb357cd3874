#include "platform/environment.h"

#include <cstdlib>

namespace platform {

bool environmentVariable(const char* name, std::string& value)
{
    const char* found = std::getenv(name);
    if (found == nullptr) return false;
    value = found;
    return true;
}

}  // namespace platform

#include <unistd.h>

namespace platform {

uint32_t processId() { return static_cast<uint32_t>(getpid()); }

}  // namespace platform
