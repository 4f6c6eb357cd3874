// Shared by the platform backends: the log path that the test seam set,
// and the pause it puts before each move of the log aside.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

std::string logPathOverride();
void pauseBeforeLogMove();

}  // namespace platform
