// Small text helpers from which the traces are put together.
#pragma once

#include <cstdint>
#include <string>

// Each byte as two lower-case hexadecimal digits and a blank; a count of
// zero or less gives the empty text.
std::string hexDump(const void* data, int32_t count);

// Plain decimal digits, with a leading "-" for a negative signed value.
std::string decimalText(int32_t value);
std::string decimalText(uint32_t value);

// The value by the format "%f".
std::string fixedText(double value);
