// The frame on the wire between the host and a rack.
//
// Short form:    55 address length command/status data... checksum
// Extended form: 55 address lengthLow 0D lengthHigh data... checksum
// (from the rack only, for answers of 256 data bytes or more).
// The checksum makes all bytes of a frame add up to 0 modulo 256.
#pragma once

#include <cstdint>

struct RackFrame {
    static constexpr uint8_t sync = 0x55;
    static constexpr uint8_t extendedMarker = 0x0D;
    static constexpr uint8_t acknowledge = 6;
    static constexpr uint8_t masterAddress = 0;
    static constexpr uint32_t headSize = 4;
    // The largest frame the host sends: command byte and a 255-byte APDU.
    static constexpr uint32_t largestOutgoing = 260;

    // Commands, host to rack.
    static constexpr uint8_t commandStatusRequest = 0x00;
    static constexpr uint8_t commandSelectT0 = 0x20;
    static constexpr uint8_t commandCardApdu = 0x40;
    static constexpr uint8_t commandSelectT1 = 0x60;
    static constexpr uint8_t commandEnumerate = 0xC1;
    static constexpr uint8_t commandStatusCollected = 0xC2;
    static constexpr uint8_t commandReset = 0xF0;

    // Statuses, reader to host.
    static constexpr uint8_t statusNoCard = 1;
    static constexpr uint8_t statusMute = 3;

    // Frames from the master.
    static constexpr uint8_t masterEnumerationReply = 0xC5;
    static constexpr uint8_t masterEnumerationComplete = 0xC2;

    // The three fixed frames to the master.
    static const uint8_t resetFrame[5];
    static const uint8_t enumerateFrame[5];
    static const uint8_t statusCollectedFrame[5];
};

// The low five bits of byte 3 of a frame from a reader.
inline uint8_t frameStatus(const uint8_t* frame) { return frame[3] & 0x1F; }

// A frame of status 1 (no card) or 3 (mute) is what a slot sends when its
// card has left or stopped answering; it carries no answer. An extended
// frame (an answer) never tells of that, nor does a frame too short to
// hold a status.
bool frameTellsOfLostCard(const uint8_t* frame, uint32_t size);

// The checksum byte over `count` bytes; 0x00 for a count of 0.
uint8_t frameChecksum(const uint8_t* bytes, uint32_t count);

// Turns a payload of `payloadSize` bytes (1 to 256; the first byte is the
// command) in place into a short frame to `address` and returns the
// frame's total size, payloadSize + 4. The buffer must hold that many.
uint32_t wrapFrame(uint8_t* buffer, uint32_t payloadSize, uint8_t address);

// The total size of a received frame from its first four bytes: byte 2 + 5,
// or, when byte 3 is the extended marker, byte 2 + 256 * byte 4 + 6.
uint32_t receivedFrameSize(const uint8_t* head);
