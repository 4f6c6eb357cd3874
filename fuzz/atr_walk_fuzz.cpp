// Fuzz target: the walk over an ATR's interface bytes that tells which
// protocols a card offers. The input is the ATR as a slot delivers it.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"
#include "link/rack.h"
#include "reader/protocol_walk.h"

namespace {

Rack* g_rack = nullptr;
Reader* g_reader = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::setUpProcess();
    fuzz_support::freshRack();
    // A rack for the walk to belong to, with no worker running, and one
    // reader whose ATR each input replaces. Both live as long as the run.
    g_rack = new Rack(fuzz_support::kSerial);
    g_rack->stopWorkers();
    g_reader = new Reader(1, fuzz_support::kSerial);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A status message carries at most 255 bytes; the ATR keeps 32.
    if (size > 255) return 0;
    g_reader->setProtocolMask(0);
    g_reader->cardInserted(Atr(data, static_cast<uint32_t>(size)));

    const OfferedProtocols offered = offeredProtocols(g_reader->atrValue());
    const uint32_t first = offered.first;
    const uint32_t mask = offered.mask;
    const uint32_t length = g_reader->atrLength();

    // Where TD1 stands: behind T0 and the TA1, TB1 and TC1 that T0 announces.
    uint32_t td1 = 0;
    if (length > 1) {
        uint8_t y = g_reader->atrValue().bytes[1] >> 4;
        td1 = 2 + ((y & 1) != 0) + ((y & 2) != 0) + ((y & 4) != 0);
        if ((y & 8) == 0) td1 = 0;
    }
    // A protocol is named only by a TD1 that the card sent.
    if (first != 0 && (td1 == 0 || td1 >= length)) __builtin_trap();
    // The first protocol is a T number plus one, and part of the mask.
    if (first > 16) __builtin_trap();
    if (first == 0 && mask != 0) __builtin_trap();
    if (first != 0 && (mask & first) != first) __builtin_trap();
    if (mask > 31) __builtin_trap();
    return 0;
}
