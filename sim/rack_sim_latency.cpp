// Observation of the latency timer that the host set.
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

}  // extern "C"
