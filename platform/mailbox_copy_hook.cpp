#include "platform/mailbox_copy_hook.h"
#include "platform/test_seam.h"

#include <atomic>

namespace platform {
namespace {

std::atomic<void (*)()> g_mailboxCopyHook{nullptr};

}  // namespace

void runMailboxCopyHook()
{
    void (*hook)() = g_mailboxCopyHook.load(std::memory_order_relaxed);
    if (hook != nullptr) hook();
}

void testing::setMailboxCopyHook(void (*hook)()) { g_mailboxCopyHook.store(hook, std::memory_order_relaxed); }

}  // namespace platform
