// D2XX functions that the library uses only when they are there. They are
// looked up by name in the D2XX library the process has already loaded,
// never imported, so that the library's import table keeps exactly its
// ordinals and an older D2XX library still loads it.
#pragma once

#include "platform/d2xx.h"

namespace platform {

// Null when the loaded D2XX library lacks the function.
FT_SetLatencyTimerFunction findSetLatencyTimer();
FT_GetLatencyTimerFunction findGetLatencyTimer();
FT_SetEventNotificationFunction findSetEventNotification();

}  // namespace platform
