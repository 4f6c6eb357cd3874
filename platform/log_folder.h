// Where the trace log lives.
#pragma once

#include <string>

namespace platform {

// The full path of the trace log file. On Windows it is the public
// documents folder; elsewhere the shared, world-writable folder that
// survives a reboot (/var/tmp). The file name is the same everywhere.
std::string logFilePath();

}  // namespace platform
