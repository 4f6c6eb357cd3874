// The fast link: an opt-in (TESSEL_FAST_LINK=<latency timer ms>) that sets
// each device's latency timer and lets the receive thread wake on received
// bytes instead of polling every 5 ms. Without the setting nothing changes.
#pragma once

#include <cstdint>

// The latency timer the fast link gives each device, 2 to 255 ms (the
// driver's range); 0 while the fast link is off. Read from the environment
// once per load, at the first device open, which is on the discovery thread
// while the library loads; a bad value is traced there and ignored.
uint32_t fastLinkLatencyTimerMs();
