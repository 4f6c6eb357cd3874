#include "tools/rackscan/pcsc_library.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#endif

namespace rackscan {
namespace {

#ifdef _WIN32

void* openLibrary(const std::string& path, std::string& error)
{
    HMODULE module = LoadLibraryA(path.c_str());
    if (!module) error = "cannot load " + path + " (Windows error " + std::to_string(GetLastError()) + ")";
    return reinterpret_cast<void*>(module);
}

void* findSymbol(void* library, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(library), name));
}

#else

void* openLibrary(const std::string& path, std::string& error)
{
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char* why = dlerror();
        error = "cannot load " + path + ": " + (why ? why : "unknown error");
    }
    return library;
}

void* findSymbol(void* library, const char* name) { return dlsym(library, name); }

std::string executableFolder()
{
    char buffer[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length <= 0) return std::string();
    std::string path(buffer, static_cast<size_t>(length));
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool fileExists(const std::string& path) { return !path.empty() && access(path.c_str(), R_OK) == 0; }

#endif

// Casts the address of an exported function to the pointer type of `slot`.
template <typename Function>
bool resolve(void* library, const char* name, Function& slot, std::string& error)
{
    void* address = findSymbol(library, name);
    if (!address) {
        error = std::string("the library does not export ") + name;
        return false;
    }
    slot = reinterpret_cast<Function>(address);
    return true;
}

}  // namespace

std::string PcscLibrary::defaultPath()
{
#ifdef _WIN32
    return "winscard.dll";
#else
    // The build tree's library first, then one that was copied beside the
    // program.
#ifdef RACKSCAN_WINSCARD_PATH
    if (fileExists(RACKSCAN_WINSCARD_PATH)) return RACKSCAN_WINSCARD_PATH;
#endif
    std::string beside = executableFolder() + "/libpcsclite.so.1";
    if (fileExists(beside)) return beside;
#ifdef RACKSCAN_WINSCARD_PATH
    return RACKSCAN_WINSCARD_PATH;
#else
    return beside;
#endif
#endif
}

bool PcscLibrary::load(const std::string& path, std::string& error)
{
    void* library = openLibrary(path, error);
    if (!library) return false;
    handle_ = library;
    path_ = path;

    PcscFunctions api;
    bool ok = resolve(library, "SCardEstablishContext", api.establishContext, error) &&
              resolve(library, "SCardReleaseContext", api.releaseContext, error) &&
              resolve(library, "SCardListReadersA", api.listReaders, error) &&
              resolve(library, "SCardGetStatusChangeA", api.getStatusChange, error) &&
              resolve(library, "SCardConnectA", api.connect, error) &&
              resolve(library, "SCardTransmit", api.transmit, error) &&
              resolve(library, "SCardStatusA", api.status, error) &&
              resolve(library, "SCardDisconnect", api.disconnect, error) &&
              resolve(library, "SCardFreeMemory", api.freeMemory, error) &&
              resolve(library, "g_rgSCardT0Pci", api.t0Pci, error) &&
              resolve(library, "g_rgSCardT1Pci", api.t1Pci, error);
    if (!ok) {
        error += " (" + path + ")";
        return false;
    }
    api_ = api;
    return true;
}

}  // namespace rackscan
