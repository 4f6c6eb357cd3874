// On Windows a short Sleep lasts a whole timer tick (about 15.6 ms) unless
// the timer resolution is raised. The library's pauses mean what they say
// (the 5 ms receive poll bounds every exchange), so the resolution is
// raised while the library is loaded and given back when it unloads.
// Elsewhere both calls do nothing.
#pragma once

namespace platform {

void raiseTimerResolution();
void restoreTimerResolution();

}  // namespace platform
