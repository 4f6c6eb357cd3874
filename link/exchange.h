// One command exchange with the card in a slot: the command goes out
// through the reader's outgoing mailbox and the rack's send queue, and the
// answer is taken from the incoming mailbox.
#pragma once

#include <cstdint>

class Rack;
class Reader;

enum class ExchangeOutcome {
    answered,
    // The answer is longer than the caller's buffer: what fits was copied.
    answerTooLong,
    // The frame never left; nothing was copied and no length is reported.
    notSent,
    // No answer within the wait, or an answer without data.
    noAnswer,
    // The card left the slot (or turned mute, or was swapped) before its
    // answer came: the exchange ends at once instead of waiting it out.
    cardGone,
    // The frame could not be written to the device; nothing was copied.
    writeFailed,
    // The reader became unavailable (its rack was lost, or its slot left
    // the slot map) before the exchange ended.
    readerGone,
};

struct ExchangeResult {
    ExchangeOutcome outcome = ExchangeOutcome::noAnswer;
    // The answer's full length, also when more than the buffer holds.
    uint32_t answerLength = 0;
};

// Sends `command` (at most 255 bytes) and copies at most `capacity` bytes
// of the answer to `answer`. Holds the reader's turn for the whole
// exchange. `cardEvents` is the reader's event count that the caller's
// connection knows: once the count moves past it, the card is gone.
ExchangeResult exchange(Rack& rack, Reader& reader, const uint8_t* command, uint32_t length, uint8_t* answer,
                        uint32_t capacity, uint32_t cardEvents);
