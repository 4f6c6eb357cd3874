// What a slot tells a card that lives outside the emulator (a virtual card
// on a socket, see vcard_bridge.h). The slot calls these under the
// registry's lock, from the rack's reaction to the host's frames; they only
// queue the work, and the card's answer comes back later through
// RackDevice::virtualCardAnswered.
#pragma once

#include "sim/rack_bytes.h"

namespace racksim {

class VirtualCardPort {
public:
    // A 0x40 command's APDU; exactly one answer comes back for it.
    virtual void command(const Bytes& apdu) = 0;
    // The protocol selection resets the card.
    virtual void resetCard() = 0;
    // The rack's master was reset: the slot's work is dropped (answers
    // still owed never come) and the card is powered down and up.
    virtual void rackReset() = 0;

protected:
    ~VirtualCardPort() = default;
};

}  // namespace racksim
