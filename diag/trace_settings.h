// The trace log's two settings, TESSEL_TRACE and TESSEL_TRACE_LIMIT. They
// are read when the log starts, which is the library's banner at load.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// full hides the data field of the commands that carry a PIN (and those
// bytes wherever they show again); fullWithPins ("full+pins") shows them.
enum class TraceMode { full, fullWithPins, redact, off };

struct TraceSettings {
    TraceMode mode = TraceMode::full;
    // The size at which the log moves aside to "<log>.1"; 0 is no limit.
    uint64_t limitBytes = uint64_t{512} << 20;
    // One line for each setting whose value was refused, for the log's start.
    std::vector<std::string> refusals;
};

// The mode the log was started with; full until it starts. The log sets it
// when it starts (setTraceMode); what traces card bytes reads it.
TraceMode traceMode();
void setTraceMode(TraceMode mode);

// The settings from the process environment, with the defaults in place of
// missing or refused values.
TraceSettings readTraceSettings();

// "full", "full+pins", "redact" or "off"; false for anything else.
bool parseTraceMode(const std::string& text, TraceMode& mode);

// A size in bytes, or with a suffix K, M or G (binary multiples, either
// case), for example "65536", "64K" or "512M"; "0" is no limit. A limit
// under 4 KiB is refused: the banner and the rotation line alone would
// fill it, and every entry would move the log aside.
bool parseTraceLimit(const std::string& text, uint64_t& bytes);
