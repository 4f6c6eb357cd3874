// The host's receive event. A device whose host asked for it with
// FT_SetEventNotification(FT_EVENT_RXCHAR) is watched by one thread, which
// sleeps until the next moment the device's schedule names (a frame coming
// in, a packet the latency timer lets go) and signals the event when bytes
// have become readable. The thread runs while any device is watched.
#pragma once

namespace racksim {

// Wakes the watcher to look again, or starts it. Registry lock held.
void wakeEventWatcher();

// Signals the host's event: on Windows an event handle, elsewhere an
// EVENT_HANDLE record (its flag set and its condition signalled).
void signalEvent(void* parameter);

// Processor time the watcher has used since the emulator loaded, in
// microseconds, brought up to date at each of its passes.
long long watcherCpuUs();

}  // namespace racksim
