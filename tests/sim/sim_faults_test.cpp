// Faults on demand: per slot for a number of frames, and per device.
#include "sim_host.h"

using namespace simtest;

namespace {

const Bytes kAck{0x55, 0x01, 0x00, 0x06, 0xA4};
const Bytes kAnswer{0x55, 0x01, 0x02, 0x04, 0x90, 0x00, 0x14};

class SimFaults : public SimOpenRack {
protected:
    void SetUp() override
    {
        SimOpenRack::SetUp();
        const uint8_t atr[] = {0x3B, 0x00};
        rackSimInsertCard(rack, 1, atr, 2);
        readNow();
    }
    Bytes command() { return exchange(hostFrame(1, 0x40, {0x00, 0x84})); }
    Bytes answerFor(int fault)
    {
        rackSimSetSlotFault(rack, 1, fault, 1);
        return command();
    }
};

// The other slot faults show their shapes byte for byte in the library's
// trace (the fault matrix); this one is larger than the library assembles,
// so its shape shows only here: an extended frame of 1,600 data bytes.
TEST_F(SimFaults, OversizedAnswerIsAWholeExtendedFrameForOneFrame)
{
    Bytes got = answerFor(RACKSIM_OVERSIZED);
    ASSERT_EQ(got.size(), 5u + 1606u);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 5), kAck);
    EXPECT_EQ(Bytes(got.begin() + 5, got.begin() + 10), (Bytes{0x55, 0x01, 0x40, 0x0D, 0x06}));
    EXPECT_TRUE(sumsToZero(Bytes(got.begin() + 5, got.end())));
    EXPECT_EQ(command(), concat({kAck, kAnswer}));
}

TEST_F(SimFaults, FaultsLastTheirFrameCountOrUntilCleared)
{
    rackSimSetSlotFault(rack, 1, RACKSIM_NO_ACK, 2);
    EXPECT_EQ(command(), Bytes{});
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), Bytes{});  // a status request counts too
    EXPECT_EQ(command(), concat({kAck, kAnswer}));

    rackSimSetSlotFault(rack, 1, RACKSIM_NO_ANSWER, -1);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(command(), kAck);
    // Frames to another slot don't use it up, and events are not affected.
    EXPECT_EQ(exchange(hostFrame(2, 0x00)), (Bytes{0x55, 0x02, 0x00, 0x06, 0xA3, 0x55, 0x02, 0x00, 0x01, 0xA8}));
    rackSimRemoveCard(rack, 1);
    EXPECT_EQ(readNow(), (Bytes{0x55, 0x01, 0x00, 0x01, 0xA9}));
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), kAck);

    rackSimSetSlotFault(rack, 1, RACKSIM_SLOT_OK, 0);
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), concat({kAck, {0x55, 0x01, 0x00, 0x01, 0xA9}}));
}

TEST_F(SimFaults, ByteAtATimeDeliversOneBytePerCall)
{
    rackSimSetDeviceFault(rack, RACKSIM_BYTE_AT_A_TIME, 1);
    write(hostFrame(1, 0x40, {0x00, 0x84}));
    Bytes all;
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(queued(), 1u);
        Bytes one = readNow();
        ASSERT_EQ(one.size(), 1u);
        all.push_back(one[0]);
    }
    EXPECT_EQ(queued(), 0u);
    EXPECT_EQ(all, concat({kAck, kAnswer}));

    rackSimSetDeviceFault(rack, RACKSIM_BYTE_AT_A_TIME, 0);
    EXPECT_EQ(command(), concat({kAck, kAnswer}));
}

TEST_F(SimFaults, CoalesceHoldsALoneFrameAndHandsOverSeveralInOneRead)
{
    rackSimSetDeviceFault(rack, RACKSIM_COALESCE, 1);
    auto start = Clock::now();
    rackSimRemoveCard(rack, 2);
    // A lone frame waits for company or for the limit, then comes anyway.
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x02, 0x00, 0x01, 0xA8}));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));

    rackSimRemoveCard(rack, 2);
    rackSimMuteCard(rack, 2);
    EXPECT_EQ(readNow(), (Bytes{0x55, 0x02, 0x00, 0x01, 0xA8, 0x55, 0x02, 0x00, 0x03, 0xA6}));
    EXPECT_EQ(command(), concat({kAck, kAnswer}));
}

}  // namespace
