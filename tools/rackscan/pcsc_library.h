// The PC/SC library, loaded at run time the way a Windows host loads
// winscard.dll: by file, then each function by its exported name. rackscan
// uses nothing of the library but these published entry points.
#pragma once

#include "pcsc/pcsc_types.h"

#include <string>

namespace rackscan {

struct PcscFunctions {
    LONG(WINAPI* establishContext)(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT) = nullptr;
    LONG(WINAPI* releaseContext)(SCARDCONTEXT) = nullptr;
    LONG(WINAPI* listReaders)(SCARDCONTEXT, LPCSTR, LPSTR, LPDWORD) = nullptr;
    LONG(WINAPI* getStatusChange)(SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA, DWORD) = nullptr;
    LONG(WINAPI* connect)(SCARDCONTEXT, LPCSTR, DWORD, DWORD, LPSCARDHANDLE, LPDWORD) = nullptr;
    LONG(WINAPI* transmit)(SCARDHANDLE, LPCSCARD_IO_REQUEST, LPCBYTE, DWORD, LPSCARD_IO_REQUEST, LPBYTE,
                           LPDWORD) = nullptr;
    LONG(WINAPI* status)(SCARDHANDLE, LPSTR, LPDWORD, LPDWORD, LPDWORD, LPBYTE, LPDWORD) = nullptr;
    LONG(WINAPI* disconnect)(SCARDHANDLE, DWORD) = nullptr;
    LONG(WINAPI* freeMemory)(SCARDCONTEXT, LPCVOID) = nullptr;
    const SCARD_IO_REQUEST* t0Pci = nullptr;
    const SCARD_IO_REQUEST* t1Pci = nullptr;
};

class PcscLibrary {
public:
    PcscLibrary() = default;
    PcscLibrary(const PcscLibrary&) = delete;
    PcscLibrary& operator=(const PcscLibrary&) = delete;
    // The library stays loaded until the process ends: its racks' worker
    // threads have no end of their own.
    ~PcscLibrary() = default;

    // Where the library is looked for when no path is given.
    static std::string defaultPath();

    // Loads the library (which runs its start-up) and resolves every
    // function. On failure returns false with the reason in `error`.
    bool load(const std::string& path, std::string& error);

    const PcscFunctions& api() const { return api_; }
    const std::string& path() const { return path_; }

private:
    PcscFunctions api_;
    std::string path_;
    void* handle_ = nullptr;
};

}  // namespace rackscan
