#include "platform/sync.h"

#include <windows.h>

namespace platform {

static_assert(sizeof(CRITICAL_SECTION) <= 48, "the lock's storage holds a critical section");

namespace {
CRITICAL_SECTION* section(unsigned char* storage) { return reinterpret_cast<CRITICAL_SECTION*>(storage); }
}  // namespace

ExclusiveLock::ExclusiveLock() { InitializeCriticalSection(section(section_)); }
ExclusiveLock::~ExclusiveLock() { DeleteCriticalSection(section(section_)); }
void ExclusiveLock::lock() { EnterCriticalSection(section(section_)); }
void ExclusiveLock::unlock() { LeaveCriticalSection(section(section_)); }

}  // namespace platform
