#include "sim/rack_sim_vcard.h"
#include "sim/vcard_setup.h"

namespace racksim {

int attachVirtualCards(const std::vector<VirtualCardSlots>& all)
{
    int attached = 0;
    for (const VirtualCardSlots& slots : all)
        for (int slot = slots.first; slot <= slots.last; ++slot) {
            const int port = slots.port + (slot - slots.first);
            if (rackSimAttachVirtualCard(0, slot, port, slots.connect ? 1 : 0) >= 0) ++attached;
        }
    return attached;
}

}  // namespace racksim
