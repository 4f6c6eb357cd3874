#include "tools/rackscan/hex.h"

namespace rackscan {
namespace {

int digitValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isSeparator(char c) { return c == ' ' || c == '\t' || c == ':' || c == '-'; }

}  // namespace

bool parseHex(const std::string& text, std::vector<uint8_t>& bytes, std::string& error, size_t maxBytes)
{
    std::vector<uint8_t> out;
    int high = -1;  // first digit of a pair that waits for its second
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (isSeparator(c)) {
            if (high >= 0) {
                error = "a separator splits the byte before position " + std::to_string(i + 1) + " in \"" + text + "\"";
                return false;
            }
            continue;
        }
        int value = digitValue(c);
        if (value < 0) {
            error = "'" + std::string(1, c) + "' at position " + std::to_string(i + 1) + " of \"" + text +
                    "\" is not a hex digit";
            return false;
        }
        if (high < 0) {
            high = value;
            continue;
        }
        out.push_back(static_cast<uint8_t>(high << 4 | value));
        high = -1;
        if (out.size() > maxBytes) {
            error = "\"" + text.substr(0, 40) + (text.size() > 40 ? "...\"" : "\"") + " is longer than " +
                    std::to_string(maxBytes) + " bytes";
            return false;
        }
    }
    if (high >= 0) {
        error = "\"" + text + "\" has an odd number of hex digits";
        return false;
    }
    if (out.empty()) {
        error = "\"" + text + "\" holds no hex digits";
        return false;
    }
    bytes.swap(out);
    return true;
}

std::string toHex(const uint8_t* bytes, size_t length)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(length * 3);
    for (size_t i = 0; i < length; ++i) {
        if (i) text += ' ';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace rackscan
