// Powering a card: the protocol selection is the one message a slot has for
// connecting, resetting and powering its card. The call waits for the slot's
// answer to that very message, with no fixed pause.
#pragma once

#include <cstdint>

class Rack;
class Reader;

// Tells the slot to use `activeProtocol` (an SCARD_PROTOCOL_* value; 0 sends
// the T=0 selection) and waits, holding the reader's turn, until the slot
// answers that message or 17 s have passed. The answer flag is cleared
// before the message goes out, and a frame that arrives before the message
// has gone out (a stale answer to an earlier exchange) does not count.
// True if the slot answered.
bool powerCard(Rack& rack, Reader& reader, uint32_t activeProtocol);
