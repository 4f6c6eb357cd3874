#include "platform/process_fork.h"

#include <atomic>
#include <pthread.h>

namespace platform {

namespace {

std::atomic<uint32_t> g_epoch{0};

void moveEpochOn() { g_epoch.fetch_add(1, std::memory_order_acq_rel); }

// Registered once, before any table's own handlers, so that a table's child
// handler (which runs after this one in registration order) already sees
// the child's epoch.
struct EpochRegistration {
    EpochRegistration() { pthread_atfork(nullptr, nullptr, moveEpochOn); }
};

void registerEpoch()
{
    static EpochRegistration registration;
}

}  // namespace

uint32_t processEpoch()
{
    registerEpoch();
    return g_epoch.load(std::memory_order_acquire);
}

void onFork(void (*prepare)(), void (*parent)(), void (*child)())
{
    registerEpoch();
    pthread_atfork(prepare, parent, child);
}

}  // namespace platform
