// The control surface of slots given over to virtual cards.
#include <cstdio>
#include <string>

#include "sim/rack_sim_vcard.h"
#include "sim/vcard_bridge.h"

extern "C" {

int RACKSIM_CALL rackSimAttachVirtualCard(int device, int address, int port, int connectToCard)
{
    std::string error;
    const int result = racksim::attachVirtualCard(device, address, port, connectToCard != 0, error);
    if (result < 0)
        std::fprintf(stderr, "rack emulator: no virtual card for slot %d of device %d: %s\n", address, device,
                     error.c_str());
    return result;
}

void RACKSIM_CALL rackSimDetachVirtualCard(int device, int address) { racksim::detachVirtualCard(device, address); }

void RACKSIM_CALL rackSimSetVirtualCardTimeoutMs(unsigned milliseconds)
{
    if (milliseconds < 1) milliseconds = 1;
    racksim::setVirtualCardTimeout(static_cast<racksim::Nanos>(milliseconds) * racksim::kMillisecond);
}

}  // extern "C"
