#include "platform/log_path_override.h"
#include "platform/test_seam.h"

#include "platform/clock.h"

#include <atomic>
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

std::atomic<uint32_t> g_logMovePauseMs{0};

}  // namespace

std::string logPathOverride()
{
    std::lock_guard<std::mutex> guard(overrideLock());
    return overridePath();
}

void pauseBeforeLogMove()
{
    uint32_t pause = g_logMovePauseMs.load(std::memory_order_relaxed);
    if (pause != 0) pauseMs(pause);
}

void testing::setLogMovePauseMs(uint32_t milliseconds) { g_logMovePauseMs.store(milliseconds); }

void testing::setLogFilePath(const std::string& path)
{
    std::lock_guard<std::mutex> guard(overrideLock());
    overridePath() = path;
}

}  // namespace platform
