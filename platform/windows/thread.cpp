#include "platform/thread.h"

#include <windows.h>

namespace platform {
namespace {

DWORD WINAPI detachedEntry(LPVOID argument)
{
    reinterpret_cast<void (*)()>(argument)();
    return 0;
}

}  // namespace

// CreateThread may be called under the loader lock: the new thread starts
// running only after the loader has released it.
bool startDetachedThread(void (*body)())
{
    HANDLE thread = CreateThread(nullptr, 0, detachedEntry, reinterpret_cast<LPVOID>(body), 0, nullptr);
    if (!thread) return false;
    CloseHandle(thread);
    return true;
}

}  // namespace platform
