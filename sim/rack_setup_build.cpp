#include "sim/rack_setup.h"

#include "sim/rack_sim.h"

namespace racksim {

void buildRacks(const RackSetup& setup)
{
    const std::vector<uint8_t> atr = setup.atr.empty() ? defaultCardAtr() : setup.atr;
    rackSimReset();
    for (int rack = 0; rack < setup.racks; ++rack) {
        const int device = rackSimAddDevice("Smart Card Rack", rackSerial(rack).c_str());
        rackSimAddSlots(device, 1, setup.slotsPerRack);
        for (int slot = 1; slot <= setup.slotsPerRack; ++slot) {
            if (setup.echo) rackSimSetEcho(device, slot);
            if (slot <= setup.cardsPerRack)
                rackSimInsertCard(device, slot, atr.data(), static_cast<int>(atr.size()));
            else if (slot <= setup.cardsPerRack + setup.muteCardsPerRack)
                rackSimMuteCard(device, slot);
        }
    }
}

}  // namespace racksim
