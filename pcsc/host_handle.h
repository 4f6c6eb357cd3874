// Card handles and contexts cross the API as SCARDHANDLE and SCARDCONTEXT,
// which are pointer-sized on 64-bit Windows and long on 64-bit Linux, while
// the library's own values are 32-bit (they are widened on the way out). A
// host's value on its way in is taken only when it is one of those widened
// values: one with bits above the low 32 is no value of ours and is refused
// like any other unknown one, never cut down to a value that happens to be
// valid.
#pragma once

#include "pcsc/pcsc_types.h"

#include <cstdint>

template <typename HostValue>
inline bool ownValueFromHost(HostValue value, uint32_t& own)
{
    own = static_cast<uint32_t>(value);
    return static_cast<HostValue>(own) == value;
}

inline bool cardHandleFromHost(SCARDHANDLE value, uint32_t& handle) { return ownValueFromHost(value, handle); }
