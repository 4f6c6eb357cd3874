// Shared by the platform backends: the log path that the test seam set.
#pragma once

#include <string>

namespace platform {

std::string logPathOverride();

}  // namespace platform
