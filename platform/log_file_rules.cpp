// The rules of the log file that do not depend on the platform.
#include "platform/environment.h"
#include "platform/log_file.h"

namespace platform {

// A second name (a hard link) would let whoever made it read the log, or
// have the library write into a file that is not a log at all.
const char* logFileDoubt(const LogFileFacts& facts)
{
    if (!facts.regular) return "it is not a regular file";
    if (!facts.ownedByCaller) return "it belongs to another user";
    if (facts.links != 1) return "it has more than one name";
    return nullptr;
}

std::string logPathForThisProcess(const std::string& path)
{
    const std::string pid = "-" + std::to_string(processId());
    const size_t slash = path.find_last_of("/\\");
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) || dot == slash + 1)
        return path + pid;
    return path.substr(0, dot) + pid + path.substr(dot);
}

}  // namespace platform
