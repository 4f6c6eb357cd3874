// The virtual smart card protocol, as vsmartcard's vpcd reader speaks it to
// a virtual card (vicc, jCardSim's VSmartCard connector): every message is
// a 2-byte big-endian length and that many bytes. A one-byte message from
// the reader is a control; anything longer is a command APDU. The card
// answers the ATR request with its ATR and a command with the response
// APDU; it answers nothing else.
//
// This file is the framing alone: no socket, no thread, no clock, so that
// it can be tested byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/rack_bytes.h"

namespace racksim {

constexpr uint8_t kVpcdPowerOff = 0x00;
constexpr uint8_t kVpcdPowerOn = 0x01;
constexpr uint8_t kVpcdReset = 0x02;
constexpr uint8_t kVpcdAtrRequest = 0x04;

// The longest body the 2-byte length can announce.
constexpr size_t kVpcdLongestBody = 0xFFFF;

// `body` with its length in front. A body longer than kVpcdLongestBody
// cannot be sent; the result is then empty.
Bytes vpcdMessage(const Bytes& body);

// Cuts a card's byte stream into message bodies. A length above the
// longest the owner takes is a breach that no later byte can mend: the
// stream has lost its step, and the reassembler takes nothing more.
class VpcdReassembler {
public:
    enum State { InStep, TooLong };

    explicit VpcdReassembler(size_t longest) : longest_(longest) {}

    // Takes bytes in; every whole body is appended to `bodies`. Returns the
    // state after them.
    State feed(const uint8_t* bytes, size_t count, std::vector<Bytes>& bodies);
    State state() const { return state_; }
    // Whether part of a message has arrived and its rest not yet.
    bool midMessage() const { return !head_.empty() || inBody_; }

private:
    size_t longest_;
    State state_ = InStep;
    Bytes head_;          // the length bytes so far
    size_t expected_ = 0; // body bytes announced, once the head is whole
    bool inBody_ = false;
    Bytes body_;
};

}  // namespace racksim
