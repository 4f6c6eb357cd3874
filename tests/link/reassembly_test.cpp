// The receive path against a byte stream with no message boundaries: bytes
// one at a time, several frames in one read, split frames, stray bytes,
// truncated and oversized frames.
#include <gtest/gtest.h>

#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace {

using namespace test_support;
using Bytes = std::vector<uint8_t>;

class Reassembly : public OneRackFixture {
protected:
    void SetUp() override
    {
        OneRackFixture::SetUp();
        startRack("RX", 3);
    }
    bool hasCard(int address) { return reader(address)->cardState() == kStateCard; }
    size_t count(const std::string& text) const { return occurrences(text); }
};

const Bytes kCardIn3 = slotFrame(3, 0x05, {0x3B, 0x00});  // 55 03 02 05 3b 00 66
const Bytes kCardIn2 = slotFrame(2, 0x05, {0x3B, 0x01});

TEST_F(Reassembly, BytesOneAtATimeMakeOneFrame)
{
    rackSimSetDeviceFault(device_, RACKSIM_BYTE_AT_A_TIME, 1);
    inject(device_, kCardIn3);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    Bytes atr(32);
    atr.resize(reader(3)->atr(atr.data()));
    EXPECT_EQ(atr, (Bytes{0x3B, 0x00}));
    std::string log = logText();
    EXPECT_NE(log.find("Received 1 bytes from rack RX: 55 \n"), std::string::npos);
    EXPECT_NE(log.find("Received 7 bytes from rack RX: 55 03 02 05 3b 00 66 \n"), std::string::npos);
    EXPECT_NE(log.find("Smart card rack RX reader 3 RX - 55 03 02 05 3b 00 66 \n"), std::string::npos);
    EXPECT_NE(log.find("Tessel RX R3: New card found\n"), std::string::npos);
}

TEST_F(Reassembly, TwoFramesInOneReadAreBothDispatchedInOrder)
{
    Bytes both = kCardIn2;
    both.insert(both.end(), kCardIn3.begin(), kCardIn3.end());
    inject(device_, both);
    ASSERT_TRUE(waitUntil([&] { return hasCard(2) && hasCard(3); }));
    std::string log = logText();
    size_t greater = log.find("Greater Than Expected Message Length\n");
    size_t first = log.find("MSGOFF: 7,rxMsgLastIndexOf: 14\n");
    size_t second = log.find("MSGOFF: 14,rxMsgLastIndexOf: 14\n");
    ASSERT_NE(greater, std::string::npos);
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(second, std::string::npos);
    EXPECT_LT(greater, first);
    EXPECT_LT(first, second);
    EXPECT_LT(log.find("reader 2 RX - "), log.find("reader 3 RX - "));
    EXPECT_EQ(count("MSGOFF: "), 2u);
}

TEST_F(Reassembly, AFrameAndAHalfDispatchesTheFirstAndKeepsTheRest)
{
    Bytes frameAndAHalf = kCardIn2;
    frameAndAHalf.insert(frameAndAHalf.end(), kCardIn3.begin(), kCardIn3.begin() + 5);
    inject(device_, frameAndAHalf);
    ASSERT_TRUE(waitUntil([&] { return hasCard(2); }));
    // The rest must come within the watchdog's second of library time.
    inject(device_, Bytes(kCardIn3.begin() + 5, kCardIn3.end()));
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    std::string log = logText();
    size_t incomplete = log.find("2ND MESSAGE NOT COMPLETE\n");
    ASSERT_NE(incomplete, std::string::npos);
    EXPECT_NE(log.find("Should copy bytes back\n", incomplete), std::string::npos);
    EXPECT_EQ(count("messages confused, fixing\n"), 0u);
}

TEST_F(Reassembly, StrayBytesBeforeAWholeFrameAreDroppedAndTheFrameGoesOnAtOnce)
{
    Bytes stray{0x00, 0x13, 0xAA};
    stray.insert(stray.end(), kCardIn3.begin(), kCardIn3.end());
    inject(device_, stray);
    // Nothing more comes from the rack: the frame must not wait for it.
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    EXPECT_EQ(count("Received 10 bytes from rack RX: 00 13 aa 55 03 02 05 3b 00 66 \n"), 1u);
    EXPECT_EQ(count("messages confused, fixing\n"), 0u);
}

TEST_F(Reassembly, BytesBehindAWholeFrameThatStartNoFrameAreSearchedAtOnce)
{
    Bytes joined = kCardIn2;
    joined.push_back(0x42);
    joined.insert(joined.end(), kCardIn3.begin(), kCardIn3.end());
    inject(device_, joined);
    ASSERT_TRUE(waitUntil([&] { return hasCard(2) && hasCard(3); }));
    std::string log = logText();
    EXPECT_NE(log.find("Should copy bytes back\n"), std::string::npos);
    EXPECT_EQ(count("messages confused, fixing\n"), 0u);
}

TEST_F(Reassembly, WatchdogGivesUpATruncatedFrameAndFindsTheNextWholeOne)
{
    Bytes truncated{0x55, 0x02, 0x20, 0x05, 0x3B, 0x00};  // claims 32 data bytes
    truncated.insert(truncated.end(), kCardIn3.begin(), kCardIn3.end());
    inject(device_, truncated);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    EXPECT_EQ(count("messages confused, fixing\n"), 1u);
    EXPECT_EQ(reader(2)->cardState(), kStateNoCard) << "the truncated frame reached no reader";
}

TEST_F(Reassembly, ExtendedFrameIsAssembledWhole)
{
    Bytes data(256, 0xA5);
    Bytes extended{0x55, 0x03, 0x00, 0x0D, 0x01};
    extended.insert(extended.end(), data.begin(), data.end());
    uint32_t sum = 0;
    for (uint8_t b : extended) sum += b;
    extended.push_back(static_cast<uint8_t>(0x100 - (sum & 0xFF)));
    inject(device_, extended);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    std::string log = logText();
    EXPECT_NE(log.find("reader 3 RX - 55 03 00 0d 01 a5 a5 "), std::string::npos);
    EXPECT_EQ(reader(3)->incoming.length.load(), 262u);
    EXPECT_EQ(count("messages confused, fixing\n"), 0u);
}

TEST_F(Reassembly, FrameOfMoreThanAThousandBytesIsCompletedAfterReadingStops)
{
    // 1,400 data bytes come in reads of 512: with 1,024 held, reading would
    // stop short of the frame's end.
    Bytes frame{0x55, 0x03, 0x78, 0x0D, 0x05};
    for (int i = 0; i < 1400; ++i) frame.push_back(static_cast<uint8_t>(i % 0x50));
    uint32_t sum = 0;
    for (uint8_t b : frame) sum += b;
    frame.push_back(static_cast<uint8_t>(0x100 - (sum & 0xFF)));
    inject(device_, frame);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    EXPECT_EQ(reader(3)->incoming.length.load(), 1406u);
    EXPECT_EQ(count("messages confused, fixing\n"), 0u);
    EXPECT_NE(logText().find("Received 1406 bytes from rack RX"), std::string::npos);
}

TEST_F(Reassembly, FrameLongerThanTheBufferCanHoldNoLongerJamsTheRack)
{
    // 1,600 data bytes: more than the reassembly buffer ever holds, with the
    // rest of it waiting in the device queue.
    Bytes oversized{0x55, 0x02, 0x40, 0x0D, 0x06};
    oversized.resize(oversized.size() + 1600, 0x00);
    oversized.push_back(0x00);
    long long before = rackSimCounter(device_, RACKSIM_BYTES_TO_HOST);
    inject(device_, oversized);
    ASSERT_TRUE(waitUntil([&] {
        return rackSimCounter(device_, RACKSIM_BYTES_TO_HOST) == before + static_cast<long long>(oversized.size());
    })) << "the rack stopped taking bytes from the device";
    inject(device_, kCardIn3);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    EXPECT_GE(count("messages confused, fixing\n"), 1u);
    EXPECT_EQ(reader(2)->cardState(), kStateNoCard);
}

}  // namespace
