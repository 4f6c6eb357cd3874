// On Windows a short Sleep lasts a whole timer tick (about 15.6 ms) unless
// the timer resolution is raised. The library's pauses mean what they say
// (the 5 ms receive poll bounds every exchange), so the resolution is
// raised while the library is loaded. It is raised by the discovery
// thread, never under the loader lock (winmm is loaded for it there), and
// the system gives it back when the process ends. Elsewhere both calls do
// nothing.
#pragma once

namespace platform {

void raiseTimerResolution();
void restoreTimerResolution();

}  // namespace platform
