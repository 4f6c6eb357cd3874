#include "sim/vpcd_message.h"

namespace racksim {

Bytes vpcdMessage(const Bytes& body)
{
    if (body.size() > kVpcdLongestBody) return {};
    Bytes message{static_cast<uint8_t>(body.size() >> 8), static_cast<uint8_t>(body.size() & 0xFF)};
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

VpcdReassembler::State VpcdReassembler::feed(const uint8_t* bytes, size_t count, std::vector<Bytes>& bodies)
{
    size_t at = 0;
    while (state_ == InStep && at < count) {
        if (!inBody_) {
            head_.push_back(bytes[at++]);
            if (head_.size() < 2) continue;
            expected_ = static_cast<size_t>(head_[0]) << 8 | head_[1];
            head_.clear();
            if (expected_ > longest_) {
                state_ = TooLong;
                break;
            }
            inBody_ = true;
            body_.clear();
        }
        // An empty body is a whole message at once.
        size_t take = expected_ - body_.size();
        if (take > count - at) take = count - at;
        body_.insert(body_.end(), bytes + at, bytes + at + take);
        at += take;
        if (body_.size() == expected_) {
            bodies.push_back(std::move(body_));
            body_ = Bytes();
            expected_ = 0;
            inBody_ = false;
        }
    }
    return state_;
}

}  // namespace racksim
