#include "platform/d2xx_lookup.h"

#include <windows.h>

namespace platform::os {

// FTD2XX.dll is loaded already: the library imports from it.
void* findD2xxFunction(const char* name)
{
    HMODULE module = GetModuleHandleA("FTD2XX.dll");
    if (module == nullptr) return nullptr;
    return reinterpret_cast<void*>(GetProcAddress(module, name));
}

}  // namespace platform::os
