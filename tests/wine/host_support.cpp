// The report and the loading of the two DLLs' functions, shared by the
// Windows test host's case files.
#include "tests/wine/host_cases.h"

#include <cstdarg>
#include <cstdio>

int g_passed = 0;
int g_failed = 0;

bool check(bool ok, const char* format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::printf("%s: %s\n", ok ? "PASS" : "FAIL", text);
    std::fflush(stdout);
    (ok ? g_passed : g_failed)++;
    return ok;
}

std::string hex(const BYTE* bytes, size_t length)
{
    std::string text;
    char two[4];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, i ? " %02x" : "%02x", bytes[i]);
        text += two;
    }
    return text;
}

const std::vector<BYTE> kAtrT0ThenT1 = {0x3B, 0x80, 0x80, 0x01};
const std::vector<BYTE> kAtrT1 = {0x3B, 0x80, 0x01};
const std::vector<BYTE> kAtrT0 = {0x3B, 0x80, 0x00};

namespace {

template <typename Target>
bool resolve(HMODULE module, const char* name, Target& out)
{
    out = reinterpret_cast<Target>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    return out != nullptr;
}

}  // namespace

bool Emulator::load(HMODULE module)
{
    return resolve(module, "rackSimReset", reset) && resolve(module, "rackSimAddDevice", addDevice) &&
           resolve(module, "rackSimAddSlots", addSlots) && resolve(module, "rackSimInsertCard", insertCard) &&
           resolve(module, "rackSimRemoveCard", removeCard) && resolve(module, "rackSimSetEcho", setEcho) &&
           resolve(module, "rackSimIsOpen", isOpen);
}

bool Api::load(HMODULE module)
{
    return resolve(module, "SCardEstablishContext", establishContext) &&
           resolve(module, "SCardReleaseContext", releaseContext) &&
           resolve(module, "SCardIsValidContext", isValidContext) &&
           resolve(module, "SCardListReadersW", listReadersW) && resolve(module, "SCardFreeMemory", freeMemory) &&
           resolve(module, "SCardGetStatusChangeA", getStatusChangeA) &&
           resolve(module, "SCardGetStatusChangeW", getStatusChangeW) &&
           resolve(module, "SCardConnectA", connectA) && resolve(module, "SCardConnectW", connectW) &&
           resolve(module, "SCardReconnect", reconnect) && resolve(module, "SCardDisconnect", disconnect) &&
           resolve(module, "SCardStatusA", statusA) && resolve(module, "SCardStatusW", statusW) &&
           resolve(module, "SCardTransmit", transmit) && resolve(module, "SCardGetAttrib", getAttrib) &&
           resolve(module, "SCardCancel", cancel) && resolve(module, "g_rgSCardT0Pci", t0Pci) &&
           resolve(module, "g_rgSCardT1Pci", t1Pci) && resolve(module, "g_rgSCardRawPci", rawPci);
}
