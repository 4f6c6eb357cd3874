// The trace log's place on POSIX systems: /var/tmp is shared by all users
// like the public documents folder of Windows, and unlike /tmp it is kept
// across a reboot, so the log of a crashed run can still be read.
#include "platform/log_folder.h"
#include "platform/log_path_override.h"

namespace platform {

std::string logFilePath()
{
    std::string overridden = logPathOverride();
    if (!overridden.empty()) return overridden;
    return "/var/tmp/QuorvaneDLL.log";
}

}  // namespace platform
