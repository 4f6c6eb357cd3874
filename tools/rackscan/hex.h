// Hexadecimal text for APDUs and ATRs, as typed on a command line and as
// printed back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace rackscan {

// Largest command that the library accepts in one SCardTransmit.
constexpr size_t kMaxApduBytes = 255;

// Parses hexadecimal text into bytes. Blanks, colons and dashes between
// digits are allowed and skipped ("00A40400", "00 a4 04 00", "00:A4:04:00"),
// so that a pair may not be split by them. On failure returns false and
// says why in `error`: no digits at all, a character that is not a hex
// digit, an odd number of digits, or more than `maxBytes` bytes.
bool parseHex(const std::string& text, std::vector<uint8_t>& bytes, std::string& error,
              size_t maxBytes = kMaxApduBytes);

// Bytes as upper-case pairs separated by one blank: "90 00". Empty for none.
std::string toHex(const uint8_t* bytes, size_t length);
inline std::string toHex(const std::vector<uint8_t>& bytes) { return toHex(bytes.data(), bytes.size()); }

}  // namespace rackscan
