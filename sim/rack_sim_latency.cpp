// Observation of the latency timer that the host set, and a driver that
// refuses to set it.
#include <mutex>

#include "sim/rack_registry.h"
#include "sim/rack_sim.h"

extern "C" {

RACKSIM_API int RACKSIM_CALL rackSimLatencyTimerMs(int device)
{
    std::lock_guard<std::mutex> lock(racksim::registry().mutex);
    racksim::RackDevice* d = racksim::deviceAt(device);
    if (!d) return -1;
    return static_cast<int>(d->latencyTimer() / racksim::kMillisecond);
}

RACKSIM_API void RACKSIM_CALL rackSimRefuseLatencyTimer(int device, int refuse)
{
    std::lock_guard<std::mutex> lock(racksim::registry().mutex);
    racksim::RackDevice* d = racksim::deviceAt(device);
    if (d) d->refusesLatencyTimer = refuse != 0;
}

}  // extern "C"
