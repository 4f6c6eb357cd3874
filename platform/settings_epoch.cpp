#include "platform/settings_epoch.h"

#include <atomic>

#include "platform/test_seam.h"

namespace platform {
namespace {

std::atomic<uint32_t> g_epoch{0};

}  // namespace

uint32_t settingsEpoch() { return g_epoch.load(std::memory_order_acquire); }

namespace testing {

void rereadSettings() { g_epoch.fetch_add(1, std::memory_order_acq_rel); }

}  // namespace testing
}  // namespace platform
