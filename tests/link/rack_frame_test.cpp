// Frames to and from a rack, byte for byte. The master's fixed frames are
// checked on the wire by the bring-up.
#include <gtest/gtest.h>

#include <vector>

#include "link/rack_frame.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(RackFrame, CommandsToAReaderGiveTheirExactBytes)
{
    Bytes largest(256, 0x55);  // a data byte of 0x55 travels unchanged
    largest[0] = 0x40;
    Bytes largestFrame;
    largestFrame.reserve(3 + largest.size() + 1);
    largestFrame.assign({0x55, 0xF0, 0xFF});
    largestFrame.insert(largestFrame.end(), largest.begin(), largest.end());
    largestFrame.push_back(frameChecksum(largestFrame.data(), 259));
    const struct {
        Bytes payload;
        uint8_t address;
        Bytes frame;
    } cases[] = {
        {{0x00}, 5, {0x55, 0x05, 0x00, 0x00, 0xA6}},
        {{0x20}, 5, {0x55, 0x05, 0x00, 0x20, 0x86}},
        {{0x60}, 5, {0x55, 0x05, 0x00, 0x60, 0x46}},
        {{0x40, 0x00, 0x84, 0x00, 0x00, 0x08}, 1, {0x55, 0x01, 0x05, 0x40, 0x00, 0x84, 0x00, 0x00, 0x08, 0xD9}},
        {{0x40, 0x00, 0xA4, 0x04, 0x00}, 7, {0x55, 0x07, 0x04, 0x40, 0x00, 0xA4, 0x04, 0x00, 0xB8}},
        {largest, 240, largestFrame},  // the length byte reads 0xFF
    };
    for (const auto& c : cases) {
        Bytes buffer(c.payload.size() + 4, 0xEE);
        std::copy(c.payload.begin(), c.payload.end(), buffer.begin());
        EXPECT_EQ(wrapFrame(buffer.data(), static_cast<uint32_t>(c.payload.size()), c.address), c.frame.size());
        EXPECT_EQ(buffer, c.frame);
    }
}

TEST(RackFrame, ChecksumMakesTheFrameAddUpToZero)
{
    const uint8_t card[] = {0x55, 0x03, 0x02, 0x05, 0x3B, 0x00};
    EXPECT_EQ(frameChecksum(card, sizeof card), 0x66);
    const uint8_t multipleOf256[] = {0x55, 0xAB};  // 0x100: stored as 0x00, not 0x100
    EXPECT_EQ(frameChecksum(multipleOf256, 2), 0x00);
}

// The extended marker is the whole byte: 0x2D and 0x8D mark short frames.
// The status is the low five bits of byte 3.
TEST(RackFrame, ReceivedSizeAndStatus)
{
    const struct {
        Bytes head;
        uint32_t size;
    } sizes[] = {{{0x55, 0x03, 0x02, 0x05, 0x00}, 7},     {{0x55, 0x03, 0x00, 0x0D, 0x01}, 262},
                 {{0x55, 0x03, 0xE8, 0x0D, 0x03}, 1006},  {{0x55, 0x03, 0x02, 0x2D, 0x01}, 7},
                 {{0x55, 0x03, 0x02, 0x8D, 0x01}, 7}};
    for (const auto& c : sizes) EXPECT_EQ(receivedFrameSize(c.head.data()), c.size) << int(c.head[3]);
    const uint8_t status25[] = {0x55, 0x01, 0x00, 0x25, 0x00};
    const uint8_t ack26[] = {0x55, 0x01, 0x00, 0x26, 0x00};
    EXPECT_EQ(frameStatus(status25), 5);
    EXPECT_EQ(frameStatus(ack26), RackFrame::acknowledge);
    // A lost card: status 1 or 3 in a short frame only.
    const struct {
        Bytes frame;
        bool lostCard;
    } lost[] = {{{0x55, 0x01, 0x00, 0x01, 0xA9}, true},  {{0x55, 0x01, 0x00, 0x23, 0x87}, true},
                {{0x55, 0x01, 0x00, 0x05, 0xA5}, false}, {{0x55, 0x01, 0x00, 0x0D, 0x01}, false},
                {{0x55, 0x01, 0x00}, false}};
    for (const auto& c : lost)
        EXPECT_EQ(frameTellsOfLostCard(c.frame.data(), static_cast<uint32_t>(c.frame.size())), c.lostCard)
            << int(c.frame.size() > 3 ? c.frame[3] : 0);
}

}  // namespace
