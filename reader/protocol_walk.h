// The protocols that a card's ATR offers, read from its interface bytes.
#pragma once

#include <cstdint>

#include "reader/atr.h"

struct OfferedProtocols {
    // The protocol of TD1 in the API's numbering (T + 1); 0 when the ATR
    // names none.
    uint32_t first = 0;
    // Every protocol named by TD1 and TD2, as API protocol bits; 0 when
    // the ATR names none, and then a reader keeps the mask it had.
    uint32_t mask = 0;
};

OfferedProtocols offeredProtocols(const Atr& atr);
