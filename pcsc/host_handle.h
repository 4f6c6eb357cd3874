// Card handles cross the API as SCARDHANDLE, which is pointer-sized on
// 64-bit Windows, while the library's own handles are 32-bit values (they
// are widened on the way out). A host's value on its way in is taken only
// when it is one of those widened values: one with bits above the low 32
// is no handle of ours and is refused like any other unknown handle, never
// cut down to a handle that happens to be valid.
#pragma once

#include "pcsc/pcsc_types.h"

#include <cstdint>

inline bool cardHandleFromHost(SCARDHANDLE value, uint32_t& handle)
{
    handle = static_cast<uint32_t>(value);
    return static_cast<SCARDHANDLE>(handle) == value;
}
