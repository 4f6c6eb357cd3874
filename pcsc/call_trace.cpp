#include "pcsc/call_trace.h"

#include <cstdio>

#include "diag/trace_log.h"

namespace {

struct NamedResult {
    LONG result;
    const char* name;
};

#define TESSEL_NAMED(result) {result, #result}
const NamedResult kNames[] = {
    TESSEL_NAMED(SCARD_S_SUCCESS),
    TESSEL_NAMED(SCARD_E_CANCELLED),
    TESSEL_NAMED(SCARD_E_INVALID_HANDLE),
    TESSEL_NAMED(SCARD_E_INVALID_PARAMETER),
    TESSEL_NAMED(SCARD_E_INVALID_VALUE),
    TESSEL_NAMED(SCARD_E_NO_MEMORY),
    TESSEL_NAMED(SCARD_E_INSUFFICIENT_BUFFER),
    TESSEL_NAMED(SCARD_E_UNKNOWN_READER),
    TESSEL_NAMED(SCARD_E_UNKNOWN_CARD),
    TESSEL_NAMED(SCARD_E_NO_SMARTCARD),
    TESSEL_NAMED(SCARD_E_READER_UNAVAILABLE),
    TESSEL_NAMED(SCARD_E_UNSUPPORTED_FEATURE),
    TESSEL_NAMED(SCARD_E_NO_READERS_AVAILABLE),
    TESSEL_NAMED(SCARD_E_TIMEOUT),
#ifdef _WIN32
    TESSEL_NAMED(SCARD_E_DUPLICATE_READER),
    TESSEL_NAMED(SCARD_E_NO_SUCH_CERTIFICATE),
    TESSEL_NAMED(SCARD_W_CACHE_ITEM_NOT_FOUND),
    TESSEL_NAMED(SCARD_W_CACHE_ITEM_TOO_BIG),
#endif
};
#undef TESSEL_NAMED

}  // namespace

std::string resultText(LONG result)
{
    for (const NamedResult& known : kNames)
        if (known.result == result) return known.name;
    char number[16];
    std::snprintf(number, sizeof number, "0x%08lX", static_cast<unsigned long>(static_cast<uint32_t>(result)));
    return number;
}

void traceEntry(const std::string& call) { logWrite(call + "\n"); }

LONG traceResult(const std::string& call, LONG result)
{
    logWrite(call + " " + resultText(result) + "\n");
    return result;
}
