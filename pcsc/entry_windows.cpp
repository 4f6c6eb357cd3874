// The library's entry function on Windows. The loader calls it with the
// process-wide objects already constructed (the run-time library's own
// entry does that first) and, at process detach, before their destructors.
//
// It runs under the loader lock, where only kernel32-level work is safe:
// anything that may load a module (shell, COM, winmm) or wait for another
// thread can deadlock the host, and a pause there holds up every other
// thread's LoadLibrary. So attach pins the module and calls KickOff, which
// only names the banner and creates the discovery thread; that thread,
// once the lock is free, raises the timer resolution, opens the log and
// searches for racks. SCardEstablishContext waits for the racks, so a host
// sees the same settled lists as ever. The result is TRUE in every case: a
// failed search shows to the host through the API, never as a failed load.
//
// Unloading. The rack threads do have a stop path (Rack::stopWorkers), but
// at detach the library holds the loader lock, so it cannot wait for them
// to end, nor let them run on in code that is about to be unmapped. The
// module therefore pins itself at attach: a FreeLibrary by the host then
// leaves it mapped, its threads keep running on valid code, and the detach
// notification comes only once, when the process ends. Links and the
// raised timer resolution stay until then, which is what a host loading
// the system's PC/SC library expects of it anyway.
//
// Detach at process exit (`reserved` not null) does nothing: Windows has
// already ended every other thread, perhaps inside the D2XX library with
// its locks held, so an FT_Close there could hang the exit; the system
// closes the devices and gives the timer resolution back itself. Only a
// detach by FreeLibrary (reachable only if the pin failed) closes the links
// as before.
// The library's own API header comes first: it settles how <winscard.h>,
// which <windows.h> pulls in, declares the PCI records.
#include "pcsc/winscard_api.h"

#include <windows.h>

namespace {

void pinThisModule()
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&pinThisModule), &self);
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        pinThisModule();
        KickOff();
        break;
    case DLL_PROCESS_DETACH:
        if (reserved == nullptr) CloseConnections();
        break;
    default:
        break;
    }
    return TRUE;
}
