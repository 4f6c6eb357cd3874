#include "tools/rackscan/hex.h"

#include <gtest/gtest.h>

namespace rackscan {
namespace {

std::vector<uint8_t> parsed(const std::string& text)
{
    std::vector<uint8_t> bytes;
    std::string error;
    EXPECT_TRUE(parseHex(text, bytes, error)) << text << ": " << error;
    return bytes;
}

std::string refusal(const std::string& text, size_t maxBytes = kMaxApduBytes)
{
    std::vector<uint8_t> bytes{0xEE};
    std::string error;
    EXPECT_FALSE(parseHex(text, bytes, error, maxBytes)) << text;
    EXPECT_EQ(bytes, std::vector<uint8_t>{0xEE}) << "a refused text must leave the output alone";
    return error;
}

TEST(ParseHex, AcceptsBothCasesAndSeparatorsBetweenBytes)
{
    const std::vector<uint8_t> select{0x00, 0xA4, 0x04, 0x00, 0x0F};
    EXPECT_EQ(parsed("00A404000F"), select);
    EXPECT_EQ(parsed("00a404000f"), select);
    EXPECT_EQ(parsed("00 A4 04 00 0F"), select);
    EXPECT_EQ(parsed("00:a4:04:00:0f"), select);
    EXPECT_EQ(parsed(" 00-A4\t04 00 0F "), select);
    EXPECT_EQ(parsed("fF"), std::vector<uint8_t>{0xFF});
}

TEST(ParseHex, RefusesTextThatIsNotWholeBytes)
{
    EXPECT_NE(refusal("00A").find("odd number of hex digits"), std::string::npos);
    EXPECT_NE(refusal("0 0A4").find("separator splits"), std::string::npos);
    EXPECT_NE(refusal("").find("no hex digits"), std::string::npos);
    EXPECT_NE(refusal(" : ").find("no hex digits"), std::string::npos);
}

TEST(ParseHex, NamesTheCharacterThatIsNotAHexDigit)
{
    std::string error = refusal("00A4G400");
    EXPECT_NE(error.find("'G' at position 5"), std::string::npos) << error;
    error = refusal("0x00A4");
    EXPECT_NE(error.find("'x' at position 2"), std::string::npos) << error;
}

TEST(ParseHex, LimitsTheNumberOfBytes)
{
    std::string longest(2 * kMaxApduBytes, 'a');
    EXPECT_EQ(parsed(longest).size(), kMaxApduBytes);
    std::string error = refusal(longest + "00");
    EXPECT_NE(error.find("longer than 255 bytes"), std::string::npos) << error;

    std::vector<uint8_t> bytes;
    EXPECT_TRUE(parseHex(std::string(64, '3'), bytes, error, 32));
    EXPECT_NE(refusal(std::string(66, '3'), 32).find("longer than 32 bytes"), std::string::npos);
}

TEST(ToHex, GivesUpperCasePairsSeparatedByOneBlank)
{
    EXPECT_EQ(toHex({0x90, 0x00}), "90 00");
    EXPECT_EQ(toHex({0x0a, 0xbc, 0xff}), "0A BC FF");
    EXPECT_EQ(toHex(std::vector<uint8_t>{}), "");
    std::vector<uint8_t> all(256);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<uint8_t>(i);
    std::vector<uint8_t> back;
    std::string error;
    ASSERT_FALSE(parseHex(toHex(all), back, error)) << "256 bytes are one more than a command may have";
    ASSERT_TRUE(parseHex(toHex(all), back, error, all.size())) << error;
    EXPECT_EQ(back, all);
}

}  // namespace
}  // namespace rackscan
