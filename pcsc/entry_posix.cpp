// The shared library's load and unload on POSIX systems: the counterpart of
// the Windows entry function. Loading runs the start-up; unloading closes
// the links and, since here the process can go on without the library,
// stops every rack's worker threads before the code goes away.
//
// The constructor runs under the dynamic loader's lock, which every other
// thread's dlopen and dlclose wait for. KickOff therefore only names the
// banner and starts the discovery thread (no file, no pause); the log is
// opened and the racks searched on that thread.
#include <atomic>
#include <cstdlib>

#include "pcsc/rack_rescan.h"
#include "pcsc/registry.h"

namespace {

void shutDown()
{
    static std::atomic<bool> done{false};
    if (done.exchange(true)) return;
    CloseConnections();
    waitForDiscoveryThreads();
    stopRackRescan();
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) g_racks[i]->stopWorkers();
}

__attribute__((constructor)) void libraryLoaded()
{
    KickOff();
    // At exit the library's own objects (the log path, the lists) are
    // destroyed in the reverse order of their construction. Registered
    // after them, the shut-down runs before them, so no rack thread is
    // still tracing into a destroyed log path when they go.
    std::atexit(shutDown);
}

__attribute__((destructor)) void libraryUnloading() { shutDown(); }

}  // namespace
