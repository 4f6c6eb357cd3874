// The published rules by which a call hands variable-sized data (a name, a
// multi-string, an ATR, an attribute) to the host, in one place for every
// call that has such an output:
//   - a null buffer asks for the size alone;
//   - *pcLen == SCARD_AUTOALLOCATE: the library allocates the block, hands
//     it over through the pointer that the buffer argument points to, and
//     the host gives it back with SCardFreeMemory; without that pointer the
//     call fails with SCARD_E_INVALID_PARAMETER;
//   - otherwise the caller's buffer of *pcLen elements, and one too small
//     gets SCARD_E_INSUFFICIENT_BUFFER.
// On every way out past the null test of pcLen, *pcLen holds the size
// the data needs, in elements, so a host told its buffer is too small
// learns what to offer next.
#pragma once

#include <cstddef>

#include "pcsc/pcsc_types.h"

// What a buffer too small for the data receives. Nothing at all is the
// published behaviour; the status query's name and the attribute call
// have always given what fits, and hosts may rely on that.
enum class ShortBuffer {
    untouched,    // nothing is written
    whatFits,     // the first elements, as many as fit
    textThatFits  // as many characters as fit with a closing NUL
};

// Traces that a call writes at the moments of the rules; a null text
// writes nothing. Each call keeps its own, so its log reads as before.
struct HostBufferTraces {
    const char* autoAllocate = nullptr;    // entering the SCARD_AUTOALLOCATE form
    const char* withoutPointer = nullptr;  // SCARD_AUTOALLOCATE with no pointer to take the block
    const char* allocated = nullptr;       // after the allocation, whatever came of it
    const char* noMemory = nullptr;
    const char* sizeQuery = nullptr;
    const char* tooSmall = nullptr;
};

// Hands `count` elements of `elementSize` bytes at `data` to the host by
// the rules above. `buffer` is the host's buffer argument as it came in.
// pcLen must not be null: each call refuses that itself, with its own
// trace. Returns SCARD_S_SUCCESS, SCARD_E_INSUFFICIENT_BUFFER,
// SCARD_E_INVALID_PARAMETER or SCARD_E_NO_MEMORY.
LONG deliverToHost(const void* data, DWORD count, size_t elementSize, void* buffer, DWORD* pcLen,
                   ShortBuffer shortRule = ShortBuffer::untouched, const HostBufferTraces& traces = {});

// The typed form: a string's characters, with or without its NUL, or
// bytes.
template <typename Element>
LONG deliverElements(const Element* data, DWORD count, Element* buffer, DWORD* pcLen,
                     ShortBuffer shortRule = ShortBuffer::untouched, const HostBufferTraces& traces = {})
{
    return deliverToHost(data, count, sizeof(Element), buffer, pcLen, shortRule, traces);
}
