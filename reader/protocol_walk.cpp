// The protocols that a card's ATR offers, read from its interface bytes
// (T0, TD1, TD2) by the rules of ISO/IEC 7816-3.
#include "reader/protocol_walk.h"

namespace {

// TA, TB and TC present, by the bits 0x1, 0x2 and 0x4 of a high nibble.
uint32_t interfaceBytesBeforeTd(uint8_t highNibble)
{
    return (highNibble & 0x1 ? 1u : 0u) + (highNibble & 0x2 ? 1u : 0u) + (highNibble & 0x4 ? 1u : 0u);
}

}  // namespace

// An ATR shorter than its own format bytes announce is read only as far as
// it goes: a TD byte that would stand at or behind the ATR's length counts
// as absent, so bytes the card never sent never name a protocol.
OfferedProtocols offeredProtocols(const Atr& atr)
{
    OfferedProtocols offered;
    uint32_t i = 1;
    if (i >= atr.length) return offered;
    uint8_t y = atr.bytes[i] >> 4;
    i += interfaceBytesBeforeTd(y);
    if ((y & 0x8) == 0) return offered;
    ++i;
    if (i >= atr.length) return offered;
    uint32_t t = atr.bytes[i] & 0x0F;
    y = atr.bytes[i] >> 4;
    offered.first = t + 1;
    offered.mask = t + 1;
    i += interfaceBytesBeforeTd(y);
    if (y & 0x8) {
        ++i;
        if (i < atr.length) offered.mask |= (atr.bytes[i] & 0x0Fu) + 1;
    }
    return offered;
}
