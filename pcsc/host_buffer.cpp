#include "pcsc/host_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "diag/trace_log.h"

namespace {

void traceIfAny(const char* text)
{
    if (text != nullptr) logWrite(text);
}

// A buffer of `capacity` elements, fewer than the data needs.
void fillShortBuffer(const void* data, size_t elementSize, void* buffer, DWORD capacity, ShortBuffer rule)
{
    if (rule == ShortBuffer::untouched || capacity == 0) return;
    auto* bytes = static_cast<unsigned char*>(buffer);
    if (rule == ShortBuffer::whatFits) {
        std::memcpy(bytes, data, size_t(capacity) * elementSize);
        return;
    }
    std::memcpy(bytes, data, size_t(capacity - 1) * elementSize);
    std::memset(bytes + size_t(capacity - 1) * elementSize, 0, elementSize);
}

}  // namespace

LONG deliverToHost(const void* data, DWORD count, size_t elementSize, void* buffer, DWORD* pcLen,
                   ShortBuffer shortRule, const HostBufferTraces& traces)
{
    const DWORD capacity = *pcLen;
    *pcLen = count;
    const size_t bytes = size_t(count) * elementSize;

    if (capacity == SCARD_AUTOALLOCATE) {
        traceIfAny(traces.autoAllocate);
        if (buffer == nullptr) {
            traceIfAny(traces.withoutPointer);
            return SCARD_E_INVALID_PARAMETER;
        }
        // Empty data still gets a block of its own, so that the host
        // always has something to hand back and malloc(0) is never taken
        // for a failure.
        void* block = std::malloc(std::max<size_t>(bytes, 1));
        traceIfAny(traces.allocated);
        if (block == nullptr) {
            traceIfAny(traces.noMemory);
            return SCARD_E_NO_MEMORY;
        }
        if (bytes != 0) std::memcpy(block, data, bytes);
        *static_cast<void**>(buffer) = block;
        return SCARD_S_SUCCESS;
    }
    if (buffer == nullptr) {
        traceIfAny(traces.sizeQuery);
        return SCARD_S_SUCCESS;
    }
    if (capacity < count) {
        traceIfAny(traces.tooSmall);
        fillShortBuffer(data, elementSize, buffer, capacity, shortRule);
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (bytes != 0) std::memcpy(buffer, data, bytes);
    return SCARD_S_SUCCESS;
}
