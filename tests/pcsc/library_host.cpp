// A host process that loads the shared library as an application would,
// with racks running, and then leaves in the way the command line says:
// by unloading the library, or by returning from main with it loaded. The
// library must stop its rack threads before its own objects go, so either
// way ends with exit status 0 and no stray files.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstdint>

#include "pcsc/pcsc_types.h"
#include "sim/rack_sim.h"

namespace {

int runHost(const char* libraryPath, const char* way)
{
    int device = rackSimAddDevice("Smart Card Rack", "HOST1");
    rackSimAddSlots(device, 1, 4);
    const unsigned char atr[] = {0x3B, 0x80, 0x01};
    rackSimInsertCard(device, 1, atr, 3);

    void* library = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    // The library's own ABI: pcsc-lite's DWORD and SCARDCONTEXT are 8 bytes
    // on 64-bit Linux.
    using Establish = LONG (*)(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT);
    auto establish = reinterpret_cast<Establish>(dlsym(library, "SCardEstablishContext"));
    if (establish == nullptr) return 1;
    SCARDCONTEXT context = 0;
    if (establish(0, nullptr, nullptr, &context) != 0) return 1;
    // Card events keep the rack threads tracing while the process leaves.
    rackSimRemoveCard(device, 1);
    rackSimInsertCard(device, 1, atr, 3);
    if (std::strcmp(way, "unload") == 0) dlclose(library);
    return 0;
}

}  // namespace

// The host runs in a child process inside an empty folder; the parent
// checks how the child ended and that it left nothing behind.
int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: library_host <libpcsclite.so.1> unload|exit\n");
        return 2;
    }
    char folder[] = "/tmp/tessel-host-XXXXXX";
    if (mkdtemp(folder) == nullptr) return 1;
    pid_t child = fork();
    if (child == 0) {
        if (chdir(folder) != 0) _exit(1);
        std::exit(runHost(argv[1], argv[2]));
    }
    int status = 0;
    waitpid(child, &status, 0);
    // Only an empty folder can be removed.
    const bool leftNothing = rmdir(folder) == 0;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "host ended badly: status 0x%x\n", status);
        return 1;
    }
    if (!leftNothing) {
        std::fprintf(stderr, "host left files in %s\n", folder);
        return 1;
    }
    std::printf("host left cleanly by %s\n", argv[2]);
    return 0;
}
