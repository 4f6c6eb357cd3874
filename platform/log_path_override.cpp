#include "platform/log_path_override.h"
#include "platform/test_seam.h"

#include <mutex>

namespace platform {
namespace {

std::mutex& overrideLock()
{
    static std::mutex lock;
    return lock;
}

std::string& overridePath()
{
    static std::string path;
    return path;
}

}  // namespace

std::string logPathOverride()
{
    std::lock_guard<std::mutex> guard(overrideLock());
    return overridePath();
}

void testing::setLogFilePath(const std::string& path)
{
    std::lock_guard<std::mutex> guard(overrideLock());
    overridePath() = path;
}

}  // namespace platform
