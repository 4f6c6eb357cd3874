#include "platform/d2xx_lookup.h"

#include <dlfcn.h>

namespace platform::os {

namespace {

constexpr const char* kD2xxLibrary = "libftd2xx.so";

// Where the D2XX functions are looked up: one library handle, or the
// process's global scope.
struct D2xxModule {
    bool found = false;
    void* handle = nullptr;  // RTLD_DEFAULT for the global scope
};

// In this order: libftd2xx.so when the process has it loaded already (a
// host that uses it too); the global scope when it has the functions (a
// program that carries them itself, as the test programs carry the rack
// emulator; the shared library's own forwarding functions are hidden and
// never found there); libftd2xx.so opened by name. A library opened here is
// kept open for the life of the process: rack threads may still be in a
// D2XX call while the library is unloaded.
D2xxModule resolve()
{
    if (void* loaded = dlopen(kD2xxLibrary, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD)) return {true, loaded};
    if (dlsym(RTLD_DEFAULT, "FT_Read") != nullptr) return {true, RTLD_DEFAULT};
    if (void* opened = dlopen(kD2xxLibrary, RTLD_NOW | RTLD_LOCAL)) return {true, opened};
    return {};
}

}  // namespace

void* findD2xxFunction(const char* name)
{
    static const D2xxModule module = resolve();
    return module.found ? dlsym(module.handle, name) : nullptr;
}

}  // namespace platform::os
