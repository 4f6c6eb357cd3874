#include "platform/thread.h"

#include <windows.h>

namespace platform {

// CreateThread may be called under the loader lock: the new thread starts
// running only after the loader has released it.
bool startDetachedThread(void (*body)())
{
    auto entry = [](LPVOID argument) -> DWORD {
        reinterpret_cast<void (*)()>(argument)();
        return 0;
    };
    HANDLE thread = CreateThread(nullptr, 0, entry, reinterpret_cast<LPVOID>(body), 0, nullptr);
    if (!thread) return false;
    CloseHandle(thread);
    return true;
}

}  // namespace platform
