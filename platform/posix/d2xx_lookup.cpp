#include "platform/d2xx_lookup.h"

#include <dlfcn.h>

#include "platform/d2xx.h"

namespace platform::os {

namespace {

void* findIn(void* module, const char* name)
{
    if (module == nullptr) return nullptr;
    void* function = dlsym(module, name);
    dlclose(module);
    return function;
}

}  // namespace

// First in libftd2xx.so, when the process has it loaded: the shared
// library opens it by that name. Then in the module that provides FT_Read,
// the D2XX library a test program was linked against. Then the global
// scope, where a program that carries the D2XX functions itself exports
// them.
void* findD2xxFunction(const char* name)
{
    if (void* function = findIn(dlopen("libftd2xx.so", RTLD_LAZY | RTLD_NOLOAD), name)) return function;
    Dl_info provider{};
    if (dladdr(reinterpret_cast<void*>(&FT_Read), &provider) != 0 && provider.dli_fname != nullptr) {
        if (void* function = findIn(dlopen(provider.dli_fname, RTLD_LAZY | RTLD_NOLOAD), name)) return function;
    }
    return dlsym(RTLD_DEFAULT, name);
}

}  // namespace platform::os
