// What the emulator shows of the host: wire log, counters, the bus rule
// and the pace of the line.
#include "sim_host.h"

using namespace simtest;

namespace {

class SimObserve : public SimOpenRack {};

TEST_F(SimObserve, WireLogKeepsEveryWriteInOrderWithItsTime)
{
    Bytes first = hostFrame(1, 0x00);
    write(first);
    write({0x55});
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    write({0x02, 0x00, 0x00, 0xA9});

    ASSERT_EQ(rackSimWireLogCount(rack), 3);
    EXPECT_EQ(wireLog(rack), (std::vector<Bytes>{first, {0x55}, {0x02, 0x00, 0x00, 0xA9}}));

    long long t0 = -1, t1 = -1, t2 = -1;
    uint8_t small[2] = {0, 0};
    EXPECT_EQ(rackSimWireLogEntry(rack, 0, small, 2, &t0), 5);  // full length, two bytes copied
    EXPECT_EQ(small[0], 0x55);
    EXPECT_EQ(small[1], 0x01);
    rackSimWireLogEntry(rack, 1, nullptr, 0, &t1);
    rackSimWireLogEntry(rack, 2, nullptr, 0, &t2);
    EXPECT_GE(t0, 0);
    EXPECT_LE(t0, t1);
    EXPECT_GE(t2 - t1, 20000);
    EXPECT_EQ(rackSimWireLogEntry(rack, 3, small, 2, &t0), -1);
    EXPECT_EQ(rackSimWireLogEntry(rack, -1, small, 2, &t0), -1);

    rackSimClearWireLog(rack);
    EXPECT_EQ(rackSimWireLogCount(rack), 0);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_FRAMES_FROM_HOST), 0);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_OPENS), 0);
}

TEST_F(SimObserve, CountersFollowFramesAndBytesBothWays)
{
    const uint8_t atr[] = {0x3B, 0x00};
    rackSimInsertCard(rack, 1, atr, 2);  // 7 bytes, not yet taken
    write(concat({hostFrame(1, 0x40, {0x00, 0x84}), hostFrame(2, 0x00), hostFrame(0, 0xF0)}));
    // Injected bytes reach the host as they are, and are no frames.
    const Bytes raw{0x55, 0x07, 0x00, 0x2D, 0x00, 0x55};
    rackSimInjectBytes(rack, nullptr, 3);
    rackSimInjectBytes(rack, raw.data(), static_cast<int>(raw.size()));

    EXPECT_EQ(rackSimCounter(rack, RACKSIM_FRAMES_FROM_HOST), 3);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BYTES_FROM_HOST), 7 + 5 + 5);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_FRAMES_TO_HOST), 5);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_COMMANDS_ANSWERED), 1);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BYTES_TO_HOST), 0);

    Bytes part(10);
    uint32_t n = 0;
    FT_Read(handle, part.data(), 10, &n);
    EXPECT_EQ(n, 10u);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BYTES_TO_HOST), 10);
    const Bytes rest = readNow();
    ASSERT_EQ(rest.size(), 7u + 5 + 7 + 5 + 5 + 6 - 10);
    EXPECT_EQ(Bytes(rest.end() - 6, rest.end()), raw);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BYTES_TO_HOST), 35);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_EVENTS_SIGNALLED), 0) << "nobody asked for the event";
    EXPECT_EQ(rackSimCounter(rack, 10), -1);
    EXPECT_EQ(rackSimCounter(rack, -1), -1);
}

TEST_F(SimObserve, BusViolationIsAFrameToAnotherSlotBeforeTheFirstWasAnswered)
{
    write(hostFrame(1, 0x00));
    write(hostFrame(1, 0x00));  // the same slot again: no breach
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BUS_VIOLATIONS), 0);
    write(hostFrame(2, 0x00));  // slot 1's answers not yet read
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BUS_VIOLATIONS), 1);

    readNow();
    write(hostFrame(3, 0x00));
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x03, 0x00, 0x06, 0xA2}));  // the acknowledge is enough
    write(hostFrame(4, 0x00));
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BUS_VIOLATIONS), 1);

    // A frame to the master or a reset ends the tracking.
    readNow();
    write(hostFrame(1, 0x00));
    write(hostFrame(0, 0xC2));
    write(hostFrame(2, 0x00));
    write(hostFrame(0, 0xF0));
    write(hostFrame(3, 0x00));
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BUS_VIOLATIONS), 1);

    // A silent slot leaves its frame unanswered for good.
    readNow();
    rackSimSetSlotFault(rack, 1, RACKSIM_NO_ACK, 1);
    write(hostFrame(1, 0x00));
    readNow();
    write(hostFrame(2, 0x00));
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BUS_VIOLATIONS), 2);
}

// ---- Wire realism ---------------------------------------------------------
// Only lower bounds on time are checked here: the rack can never be faster
// than the line, however slow the machine. The rate itself is measured by
// the pacing benchmark.

TEST_F(SimObserve, PacedBytesNeverOutrunTheLine)
{
    rackSimSetWireRealism(rack, 1);
    Bytes block(2304);  // 0.2 s of line time
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i);
    auto start = Clock::now();
    rackSimInjectBytes(rack, block.data(), static_cast<int>(block.size()));

    Bytes got;
    auto deadline = start + std::chrono::seconds(10);
    while (got.size() < block.size() && Clock::now() < deadline) {
        Bytes part = readNow();
        double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        got.insert(got.end(), part.begin(), part.end());
        ASSERT_LE(static_cast<double>(got.size()), seconds * 11520.0 + 1.0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(got, block);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(199));
}

// A paced frame reaches the rack only after its wire time, but the bus rule
// judges it by when the host wrote it.
TEST_F(SimObserve, PacedHostFrameArrivesAfterItsWireTimeAndIsJudgedByItsWrite)
{
    rackSimSetWireRealism(rack, 1);
    write(hostFrame(1, 0x00));
    readBytes(10);  // slot 1: acknowledge and status
    write(hostFrame(2, 0x00));
    // 260 bytes, 22.6 ms of line time: written before slot 2's acknowledge
    // was read, though it reaches the rack only after that read.
    auto start = Clock::now();
    write(hostFrame(3, 0x40, Bytes(255, 0x00)));
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x02, 0x00, 0x06, 0xA3}));
    EXPECT_EQ(readBytes(15), (Bytes{0x55, 0x02, 0x00, 0x01, 0xA8, 0x55, 0x03, 0x00, 0x06, 0xA2, 0x55, 0x03, 0x00,
                                    0x01, 0xA7}));
    // 22.6 ms out, and the latency timer on the way back.
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(38));
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_FRAMES_FROM_HOST), 3);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BUS_VIOLATIONS), 1);
    EXPECT_EQ(rackSimWireLogCount(rack), 3);
}

TEST_F(SimObserve, LatencyTimerHoldsAShortFrameForItsDefaultOrSetTime)
{
    rackSimSetWireRealism(rack, 1);
    auto start = Clock::now();
    rackSimRemoveCard(rack, 1);
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x01, 0x00, 0x01, 0xA9}));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(16));

    rackSimSetLatencyTimerMs(rack, 60);
    start = Clock::now();
    rackSimMuteCard(rack, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(queued(), 0u) << "a 60 ms timer still holds the frame after 20 ms";
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x01, 0x00, 0x03, 0xA7}));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(60));
}

}  // namespace
