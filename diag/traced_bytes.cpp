#include "diag/traced_bytes.h"

#include "diag/text.h"
#include "diag/trace_log.h"

namespace {

std::string hiddenCount(int32_t count)
{
    return "<" + decimalText(count) + (count == 1 ? " byte> " : " bytes> ");
}

}  // namespace

std::string tracedBytesIn(TraceMode mode, TracedBytes kind, const void* data, int32_t count)
{
    if (mode == TraceMode::off) return std::string();
    if (mode == TraceMode::full || data == nullptr) return hexDump(data, count);
    const auto* bytes = static_cast<const uint8_t*>(data);
    switch (kind) {
    case TracedBytes::command:
        if (count <= 5) return hexDump(bytes, count);
        return hexDump(bytes, 5) + hiddenCount(count - 5);
    case TracedBytes::answer:
        if (count <= 2) return hexDump(bytes, count);
        return hiddenCount(count - 2) + hexDump(bytes + count - 2, 2);
    case TracedBytes::frame:
        break;
    }
    if (count <= 4) return hexDump(bytes, count);
    return hexDump(bytes, 4) + hiddenCount(count - 4);
}

std::string tracedBytes(TracedBytes kind, const void* data, int32_t count)
{
    return tracedBytesIn(traceMode(), kind, data, count);
}
