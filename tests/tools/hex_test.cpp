#include "tools/rackscan/hex.h"

#include <gtest/gtest.h>

namespace rackscan {
namespace {

// One text, the byte limit it is parsed under, and either the bytes it
// gives or a part of the reason it is refused.
TEST(ParseHex, AcceptsWholeBytesAndNamesWhatItRefuses)
{
    const std::vector<uint8_t> select{0x00, 0xA4, 0x04, 0x00, 0x0F};
    const std::string longest(2 * kMaxApduBytes, 'a');
    const struct {
        std::string text;
        size_t maxBytes;
        std::vector<uint8_t> bytes;
        const char* refusal;
    } cases[] = {
        {"00A404000F", kMaxApduBytes, select, nullptr},
        {"0123456789abcdefABCDEF", kMaxApduBytes, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF},
         nullptr},
        {"00:a4:04:00:0f", kMaxApduBytes, select, nullptr},
        {" 00-A4\t04 00 0F ", kMaxApduBytes, select, nullptr},
        {"fF", kMaxApduBytes, {0xFF}, nullptr},
        {longest, kMaxApduBytes, std::vector<uint8_t>(kMaxApduBytes, 0xAA), nullptr},
        {std::string(64, '3'), 32, std::vector<uint8_t>(32, 0x33), nullptr},
        {"00A", kMaxApduBytes, {}, "odd number of hex digits"},
        {"0 0A4", kMaxApduBytes, {}, "separator splits"},
        {"", kMaxApduBytes, {}, "no hex digits"},
        {" : ", kMaxApduBytes, {}, "no hex digits"},
        {"00A4G400", kMaxApduBytes, {}, "'G' at position 5"},
        {"0x00A4", kMaxApduBytes, {}, "'x' at position 2"},
        {longest + "00", kMaxApduBytes, {}, "longer than 255 bytes"},
        {std::string(66, '3'), 32, {}, "longer than 32 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("\"" + c.text + "\"");
        std::vector<uint8_t> bytes{0xEE};
        std::string error;
        EXPECT_EQ(parseHex(c.text, bytes, error, c.maxBytes), c.refusal == nullptr) << error;
        if (c.refusal == nullptr) {
            EXPECT_EQ(bytes, c.bytes);
        } else {
            EXPECT_NE(error.find(c.refusal), std::string::npos) << error;
            EXPECT_EQ(bytes, std::vector<uint8_t>{0xEE}) << "a refused text must leave the output alone";
        }
    }
}

TEST(ToHex, GivesUpperCasePairsSeparatedByOneBlank)
{
    EXPECT_EQ(toHex({0x90, 0x00}), "90 00");
    EXPECT_EQ(toHex({0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}), "01 23 45 67 89 AB CD EF");
    EXPECT_EQ(toHex(std::vector<uint8_t>{}), "");
}

}  // namespace
}  // namespace rackscan
