// POSIX sleeps already have a fine resolution; nothing to raise.
#include "platform/timer_resolution.h"

namespace platform {

void raiseTimerResolution() {}
void restoreTimerResolution() {}

}  // namespace platform
