// The library's entry function on Windows. The loader calls it with the
// process-wide objects already constructed (the run-time library's own
// entry does that first) and, at process detach, before their destructors.
//
// Attach: the timer resolution goes up to 1 ms, so that the 5 ms polls of
// the rack threads and every other pause last what they say rather than a
// whole timer tick; then the start-up runs. Detach: the links are closed
// and the resolution is given back. The result is TRUE in every case: a
// failed search shows to the host through the API, never as a failed load.
//
// Unloading. The rack threads do have a stop path (Rack::stopWorkers), but
// at detach the library holds the loader lock, so it cannot wait for them
// to end, nor let them run on in code that is about to be unmapped. The module therefore pins itself
// at attach: a FreeLibrary by the host then leaves it mapped, its threads
// keep running on valid code, and the detach notification comes only once,
// when the process ends (after Windows has already stopped every other
// thread). The cost is that links and the raised timer resolution stay
// until the process ends, which is what a host loading the system's PC/SC
// library expects of it anyway.
// The library's own API header comes first: it settles how <winscard.h>,
// which <windows.h> pulls in, declares the PCI records.
#include "pcsc/winscard_api.h"
#include "platform/timer_resolution.h"

#include <windows.h>

namespace {

void pinThisModule()
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&pinThisModule), &self);
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved)
{
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        pinThisModule();
        platform::raiseTimerResolution();
        KickOff();
        break;
    case DLL_PROCESS_DETACH:
        CloseConnections();
        platform::restoreTimerResolution();
        break;
    default:
        break;
    }
    return TRUE;
}
