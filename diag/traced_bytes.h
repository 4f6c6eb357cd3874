// The data bytes of a trace, as the trace mode lets them show.
#pragma once

#include <cstdint>
#include <string>

#include "diag/trace_settings.h"

enum class TracedBytes {
    command,  // an APDU to a card: its head (CLA INS P1 P2 and the length byte) shows
    answer,   // a card's answer: its status word (the last two bytes) shows
    frame,    // bytes on the wire: the frame head (sync, address, length, command) shows
};

// The bytes as hexDump gives them. With the log in redact mode only the
// part that `kind` keeps shows, and the rest becomes its count, as in
// "00 20 00 01 08 <8 bytes> ". With the log off it is the empty text.
std::string tracedBytes(TracedBytes kind, const void* data, int32_t count);

// The same for a given mode; tracedBytes uses the log's current one.
std::string tracedBytesIn(TraceMode mode, TracedBytes kind, const void* data, int32_t count);
