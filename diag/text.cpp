#include "diag/text.h"

#include <cstdio>

std::string hexDump(const void* data, int32_t count)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    if (count <= 0 || data == nullptr) return text;
    const auto* bytes = static_cast<const uint8_t*>(data);
    text.resize(static_cast<size_t>(count) * 3);
    for (int32_t i = 0; i < count; ++i) {
        text[static_cast<size_t>(i) * 3] = digits[bytes[i] >> 4];
        text[static_cast<size_t>(i) * 3 + 1] = digits[bytes[i] & 0x0F];
        text[static_cast<size_t>(i) * 3 + 2] = ' ';
    }
    return text;
}

std::string decimalText(int32_t value) { return std::to_string(value); }

std::string decimalText(uint32_t value) { return std::to_string(value); }

std::string fixedText(double value)
{
    char buffer[400];
    std::snprintf(buffer, sizeof buffer, "%f", value);
    return buffer;
}
