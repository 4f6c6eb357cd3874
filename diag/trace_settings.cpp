#include "diag/trace_settings.h"

#include <atomic>
#include <cctype>

#include "platform/environment.h"

namespace {

constexpr uint64_t kSmallestLimit = 4096;
// Far beyond any disk, and small enough that no multiple overflows.
constexpr uint64_t kLargestNumber = uint64_t{1} << 50;

}  // namespace

bool parseTraceMode(const std::string& text, TraceMode& mode)
{
    if (text == "full") mode = TraceMode::full;
    else if (text == "full+pins") mode = TraceMode::fullWithPins;
    else if (text == "redact") mode = TraceMode::redact;
    else if (text == "off") mode = TraceMode::off;
    else return false;
    return true;
}

bool parseTraceLimit(const std::string& text, uint64_t& bytes)
{
    size_t digits = 0;
    uint64_t number = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) {
        number = number * 10 + static_cast<uint64_t>(text[digits] - '0');
        if (number > kLargestNumber) return false;
        ++digits;
    }
    if (digits == 0 || text.size() > digits + 1) return false;
    unsigned shift = 0;
    if (text.size() == digits + 1) {
        switch (std::toupper(static_cast<unsigned char>(text[digits]))) {
        case 'K': shift = 10; break;
        case 'M': shift = 20; break;
        case 'G': shift = 30; break;
        default: return false;
        }
    }
    uint64_t value = number << shift;
    if (value != 0 && value < kSmallestLimit) return false;
    bytes = value;
    return true;
}

TraceSettings readTraceSettings()
{
    TraceSettings settings;
    std::string value;
    if (platform::environmentVariable("TESSEL_TRACE", value) && !parseTraceMode(value, settings.mode))
        settings.refusals.push_back("TESSEL_TRACE: \"" + value +
                                    "\" is not full, full+pins, redact or off; the trace stays full\n");
    if (platform::environmentVariable("TESSEL_TRACE_LIMIT", value) && !parseTraceLimit(value, settings.limitBytes))
        settings.refusals.push_back("TESSEL_TRACE_LIMIT: \"" + value +
                                    "\" is not a size of 4K or more (such as 65536, 64K, 512M, 2G) or 0; the limit "
                                    "stays 512M\n");
    return settings;
}

namespace {
std::atomic<TraceMode> g_mode{TraceMode::full};
}  // namespace

TraceMode traceMode() { return g_mode.load(std::memory_order_relaxed); }
void setTraceMode(TraceMode mode) { g_mode.store(mode, std::memory_order_relaxed); }
