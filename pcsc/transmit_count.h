// How many transmits each card handle has made, for SCardGetTransmitCount.
// Keyed by the host's handle value; a handle that was never used counts 0.
#pragma once

#include <cstdint>

#include "pcsc/pcsc_types.h"

void countTransmit(SCARDHANDLE hCard);
uint32_t transmitsOf(SCARDHANDLE hCard);
