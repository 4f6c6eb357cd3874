#include "platform/random.h"

#include <windows.h>

// RtlGenRandom, exported by advapi32 as SystemFunction036: the system's
// random source without the CryptoAPI's provider handles.
extern "C" BOOLEAN WINAPI SystemFunction036(PVOID buffer, ULONG length);

namespace platform {

bool fillRandom(void* destination, size_t size)
{
    auto* bytes = static_cast<unsigned char*>(destination);
    while (size > 0) {
        const ULONG chunk = size > 0x10000 ? 0x10000 : static_cast<ULONG>(size);
        if (!SystemFunction036(bytes, chunk)) return false;
        bytes += chunk;
        size -= chunk;
    }
    return true;
}

}  // namespace platform
