#include "sim/rack_bytes.h"

namespace racksim {

uint8_t checksumOf(const uint8_t* bytes, size_t count)
{
    unsigned sum = 0;
    for (size_t i = 0; i < count; ++i) sum += bytes[i];
    return static_cast<uint8_t>(0x100 - (sum & 0xFF));
}

Bytes rackFrame(uint8_t address, uint8_t status, const Bytes& data)
{
    if (data.size() >= 256) return extendedFrame(address, data);
    Bytes frame{kSync, address, static_cast<uint8_t>(data.size()), status};
    frame.insert(frame.end(), data.begin(), data.end());
    frame.push_back(checksumOf(frame.data(), frame.size()));
    return frame;
}

Bytes extendedFrame(uint8_t address, const Bytes& data)
{
    Bytes frame{kSync, address, static_cast<uint8_t>(data.size() & 0xFF), kExtendedMarker,
                static_cast<uint8_t>((data.size() >> 8) & 0xFF)};
    frame.insert(frame.end(), data.begin(), data.end());
    frame.push_back(checksumOf(frame.data(), frame.size()));
    return frame;
}

HostStreamParser::Result HostStreamParser::feed(uint8_t byte)
{
    if (pending_.empty() && byte != kSync) return Incomplete;
    pending_.push_back(byte);
    if (pending_.size() < 3) return Incomplete;
    size_t total = static_cast<size_t>(pending_[2]) + 5;
    if (pending_.size() < total) return Incomplete;
    bool good = checksumOf(pending_.data(), total) == 0;
    if (good) frame_.swap(pending_);
    pending_.clear();
    return good ? GoodFrame : BadFrame;
}

void HostStreamParser::clear()
{
    pending_.clear();
    frame_.clear();
}

}  // namespace racksim
