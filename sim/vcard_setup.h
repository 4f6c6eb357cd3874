// Slots given over to virtual cards, as TESSEL_SIM and rackscan name them:
// "5-8@35963" gives slots 5 to 8 of the first rack to virtual cards that
// connect to 127.0.0.1 on ports 35963 to 35966, one port per slot;
// "5@connect:35963" makes the emulator connect to a card that listens there
// instead (vicc -R). See vcard_bridge.h for what the slot then does.
#pragma once

#include <string>
#include <vector>

namespace racksim {

struct VirtualCardSlots {
    int first = 0;
    int last = 0;
    int port = 0;          // the first slot's; each further slot the next
    bool connect = false;  // the emulator connects; else it listens
};

// Parses one "FIRST[-LAST]@[listen:|connect:]PORT". Slots 1 to 240, ports 1
// to 65535 for every slot of the range. On failure returns false and says
// why in `error`.
bool parseVirtualCardText(const std::string& text, VirtualCardSlots& slots, std::string& error);

// Whether every range lies within `slotsPerRack` and no slot is named
// twice; says why not in `error`.
bool checkVirtualCardSlots(const std::vector<VirtualCardSlots>& all, int slotsPerRack, std::string& error);

// Gives the slots of the first rack (device 0) over to their cards through
// the control surface; a slot whose port cannot be had is reported on
// standard error and stays empty. Returns the number of slots given over.
int attachVirtualCards(const std::vector<VirtualCardSlots>& all);

}  // namespace racksim
