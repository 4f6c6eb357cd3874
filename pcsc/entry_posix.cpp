// The shared library's load and unload on POSIX systems: the counterpart of
// the Windows entry function. Loading runs the start-up; unloading closes
// the links and, since here the process can go on without the library,
// stops every rack's worker threads before the code goes away.
#include "pcsc/registry.h"

namespace {

__attribute__((constructor)) void libraryLoaded() { KickOff(); }

__attribute__((destructor)) void libraryUnloading()
{
    CloseConnections();
    waitForDiscoveryThreads();
    for (size_t i = 0, n = g_racks.size(); i < n; ++i) g_racks[i]->stopWorkers();
}

}  // namespace
