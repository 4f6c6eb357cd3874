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
//
// In full mode a command that carries a PIN (VERIFY, CHANGE REFERENCE
// DATA, RESET RETRY COUNTER: INS 0x20, 0x21, 0x24, 0x2C) shows as in
// redact mode, and its data field is remembered for a minute: wherever
// those bytes come back in a frame or an answer (the frame that carries
// the command, the raw bytes read from the rack, a card that echoes), they
// show as their count too. A run cut by the edge of the traced bytes (a
// read that splits a frame) is hidden as far as it matches. full+pins
// shows everything.
std::string tracedBytes(TracedBytes kind, const void* data, int32_t count);

// The same for a given mode; tracedBytes uses the log's current one.
std::string tracedBytesIn(TraceMode mode, TracedBytes kind, const void* data, int32_t count);

// Forgets every remembered PIN (a new start of the log).
void forgetTracedPins();
