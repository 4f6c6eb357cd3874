// Builds without virtual cards (the stand-in FTD2XX.dll): every slot
// keeps the emulator's own cards.
#include "sim/vcard_bridge.h"

namespace racksim {

int attachVirtualCard(int, int, int, bool, std::string& error)
{
    error = "virtual cards need the Linux emulator (libftd2xx.so)";
    return -1;
}

void detachVirtualCard(int, int) {}
void detachAllVirtualCards() {}
void setVirtualCardTimeout(Nanos) {}

}  // namespace racksim
