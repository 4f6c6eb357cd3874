// Frames as the rack puts them on the line and takes them off it.
//
// A frame is 55, address, length, command or status, data, checksum; all
// of its bytes add up to 0 modulo 256. Towards the host, answers of 256 data
// bytes or more go in the extended form 55, address, length low, 0D,
// length high, data, checksum. The host only ever sends the short form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace racksim {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kSync = 0x55;
constexpr uint8_t kExtendedMarker = 0x0D;

// The byte that makes `bytes` sum to 0 modulo 256.
uint8_t checksumOf(const uint8_t* bytes, size_t count);

// A frame from `address` with `status` and `data`: the short form below
// 256 data bytes, the extended form from 256 on (the status is then
// replaced by the form marker, as the rack does).
Bytes rackFrame(uint8_t address, uint8_t status, const Bytes& data);

// The extended form whatever the size.
Bytes extendedFrame(uint8_t address, const Bytes& data);

// Cuts the host's byte stream into frames. Bytes before a sync byte are
// dropped; a frame whose checksum is wrong is dropped whole and counted.
class HostStreamParser {
public:
    enum Result { Incomplete, GoodFrame, BadFrame };

    // Takes one byte; on GoodFrame the frame is in frame().
    Result feed(uint8_t byte);
    const Bytes& frame() const { return frame_; }
    void clear();

private:
    Bytes pending_;
    Bytes frame_;
};

}  // namespace racksim
