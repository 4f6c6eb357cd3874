// Frames to and from a rack, byte for byte.
#include <gtest/gtest.h>

#include <vector>

#include "link/rack_frame.h"

namespace {

std::vector<uint8_t> wrapped(std::vector<uint8_t> payload, uint8_t address)
{
    std::vector<uint8_t> buffer(payload.size() + 4, 0xEE);
    std::copy(payload.begin(), payload.end(), buffer.begin());
    uint32_t size = wrapFrame(buffer.data(), static_cast<uint32_t>(payload.size()), address);
    EXPECT_EQ(size, payload.size() + 4);
    return buffer;
}

TEST(RackFrame, CommandsToAReaderGiveTheirExactBytes)
{
    EXPECT_EQ(wrapped({0x00}, 5), (std::vector<uint8_t>{0x55, 0x05, 0x00, 0x00, 0xA6}));
    EXPECT_EQ(wrapped({0x20}, 5), (std::vector<uint8_t>{0x55, 0x05, 0x00, 0x20, 0x86}));
    EXPECT_EQ(wrapped({0x60}, 5), (std::vector<uint8_t>{0x55, 0x05, 0x00, 0x60, 0x46}));
    EXPECT_EQ(wrapped({0x40, 0x00, 0x84, 0x00, 0x00, 0x08}, 1),
              (std::vector<uint8_t>{0x55, 0x01, 0x05, 0x40, 0x00, 0x84, 0x00, 0x00, 0x08, 0xD9}));
    EXPECT_EQ(wrapped({0x40, 0x00, 0xA4, 0x04, 0x00}, 7),
              (std::vector<uint8_t>{0x55, 0x07, 0x04, 0x40, 0x00, 0xA4, 0x04, 0x00, 0xB8}));
}

TEST(RackFrame, FixedFramesToTheMasterCarryCorrectChecksums)
{
    for (const uint8_t* frame : {RackFrame::resetFrame, RackFrame::enumerateFrame, RackFrame::statusCollectedFrame})
        EXPECT_EQ(frameChecksum(frame, 4), frame[4]);
    EXPECT_EQ(std::vector<uint8_t>(RackFrame::resetFrame, RackFrame::resetFrame + 5),
              (std::vector<uint8_t>{0x55, 0x00, 0x00, 0xF0, 0xBB}));
    EXPECT_EQ(std::vector<uint8_t>(RackFrame::enumerateFrame, RackFrame::enumerateFrame + 5),
              (std::vector<uint8_t>{0x55, 0x00, 0x00, 0xC1, 0xEA}));
    EXPECT_EQ(std::vector<uint8_t>(RackFrame::statusCollectedFrame, RackFrame::statusCollectedFrame + 5),
              (std::vector<uint8_t>{0x55, 0x00, 0x00, 0xC2, 0xE9}));
}

TEST(RackFrame, ChecksumMakesTheFrameAddUpToZero)
{
    const uint8_t card[] = {0x55, 0x03, 0x02, 0x05, 0x3B, 0x00};
    EXPECT_EQ(frameChecksum(card, sizeof card), 0x66);
    EXPECT_EQ(frameChecksum(card, 0), 0x00);
    const uint8_t multipleOf256[] = {0x55, 0xAB};  // 0x100: stored as 0x00, not 0x100
    EXPECT_EQ(frameChecksum(multipleOf256, 2), 0x00);
}

TEST(RackFrame, LargestPayloadGivesLengthByteFFAndA260ByteFrame)
{
    std::vector<uint8_t> payload(256, 0x55);  // a data byte of 0x55 travels unchanged
    payload[0] = 0x40;
    std::vector<uint8_t> frame = wrapped(payload, 240);
    ASSERT_EQ(frame.size(), 260u);
    EXPECT_EQ(frame[2], 0xFF);
    EXPECT_EQ(frame[3], 0x40);
    for (size_t i = 4; i < 259; ++i) ASSERT_EQ(frame[i], 0x55);
    uint32_t sum = 0;
    for (uint8_t b : frame) sum += b;
    EXPECT_EQ(sum % 256, 0u);
}

TEST(RackFrame, ReceivedSizeReadsTheShortAndTheExtendedForm)
{
    const uint8_t shortFrame[] = {0x55, 0x03, 0x02, 0x05, 0x00};
    EXPECT_EQ(receivedFrameSize(shortFrame), 7u);
    const uint8_t extended[] = {0x55, 0x03, 0x00, 0x0D, 0x01};  // 256 data bytes
    EXPECT_EQ(receivedFrameSize(extended), 262u);
    const uint8_t extendedThousand[] = {0x55, 0x03, 0xE8, 0x0D, 0x03};
    EXPECT_EQ(receivedFrameSize(extendedThousand), 1006u);
    // The marker is the whole byte: 0x2D and 0x8D mark short frames.
    const uint8_t notExtended[] = {0x55, 0x03, 0x02, 0x2D, 0x01};
    EXPECT_EQ(receivedFrameSize(notExtended), 7u);
    const uint8_t highBit[] = {0x55, 0x03, 0x02, 0x8D, 0x01};
    EXPECT_EQ(receivedFrameSize(highBit), 7u);
}

TEST(RackFrame, StatusIsTheLowFiveBitsOfByteThree)
{
    const uint8_t status25[] = {0x55, 0x01, 0x00, 0x25, 0x00};
    const uint8_t ack26[] = {0x55, 0x01, 0x00, 0x26, 0x00};
    EXPECT_EQ(frameStatus(status25), 5);
    EXPECT_EQ(frameStatus(ack26), RackFrame::acknowledge);
}

}  // namespace
