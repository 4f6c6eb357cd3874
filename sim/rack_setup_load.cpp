// The emulator described by the environment: a host that cannot call the
// control surface (an unmodified PC/SC client) sets TESSEL_SIM before it
// starts, and the racks are there when the PC/SC library searches for them.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/rack_setup.h"
#include "sim/rack_sim.h"

extern "C" int RACKSIM_CALL rackSimSetUp(const char* text)
{
    racksim::RackSetup setup;
    std::string error;
    if (!racksim::parseRackSetupText(text != nullptr ? text : "", setup, error)) {
        rackSimReset();
        std::fprintf(stderr, "rack emulator: bad TESSEL_SIM \"%s\": %s; no racks\n", text != nullptr ? text : "",
                     error.c_str());
        return -1;
    }
    racksim::buildRacks(setup);
    return setup.racks;
}

namespace {

// Runs when the emulator's module is loaded, before the PC/SC library (which
// imports it) starts its search. Building the racks makes no thread and
// loads nothing, so it is safe under the loader's lock; the thread of a
// timed card change or swap only starts running once the load is over. The
// variable is read from the environment the process started with.
struct SetUpFromEnvironment {
    SetUpFromEnvironment()
    {
        const char* text = std::getenv("TESSEL_SIM");
        if (text == nullptr) return;
        racksim::RackSetup setup;
        std::string ignored;
        if (rackSimSetUp(text) > 0 && racksim::parseRackSetupText(text, setup, ignored)) {
            racksim::startCardEvent(setup);
            racksim::startCardSwap(setup);
            racksim::startBusEvents(setup);
        }
    }
} g_setUpFromEnvironment;

}  // namespace
