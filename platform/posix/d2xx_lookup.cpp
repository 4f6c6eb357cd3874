#include "platform/d2xx_lookup.h"

#include <dlfcn.h>

#include "platform/d2xx.h"

namespace platform::os {

// First in the module that provides FT_Read, which is the D2XX library the
// library was linked against, whether the host loaded it into the global
// scope or only beside the library. Then the global scope, where a program
// that carries the D2XX functions itself exports them.
void* findD2xxFunction(const char* name)
{
    Dl_info provider{};
    if (dladdr(reinterpret_cast<void*>(&FT_Read), &provider) != 0 && provider.dli_fname != nullptr) {
        if (void* module = dlopen(provider.dli_fname, RTLD_LAZY | RTLD_NOLOAD)) {
            void* function = dlsym(module, name);
            dlclose(module);
            if (function != nullptr) return function;
        }
    }
    return dlsym(RTLD_DEFAULT, name);
}

}  // namespace platform::os
