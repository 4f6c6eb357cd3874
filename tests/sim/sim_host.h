// A host for the emulator's tests: talks to one device through the D2XX
// functions only, as the library does, with frames written out by hand.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "platform/d2xx.h"
#include "sim/rack_sim.h"

namespace simtest {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

// The bytes followed by the checksum that makes them add up to zero.
inline Bytes withChecksum(Bytes f)
{
    unsigned sum = 0;
    for (uint8_t b : f) sum += b;
    f.push_back(static_cast<uint8_t>(0x100 - (sum & 0xFF)));
    return f;
}

// The frame a host sends: 55 address length command data checksum.
inline Bytes hostFrame(uint8_t address, uint8_t command, const Bytes& data = {})
{
    Bytes f{0x55, address, static_cast<uint8_t>(data.size()), command};
    f.insert(f.end(), data.begin(), data.end());
    return withChecksum(f);
}

inline bool sumsToZero(const Bytes& frame)
{
    unsigned sum = 0;
    for (uint8_t b : frame) sum += b;
    return (sum & 0xFF) == 0;
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

class SimTest : public ::testing::Test {
protected:
    void SetUp() override { rackSimReset(); }
    void TearDown() override { rackSimReset(); }

    // Adds a rack with `slots` populated slots from address 1 and opens it.
    int openRack(const char* serial = "TR000001", int slots = 4)
    {
        int device = rackSimAddDevice("Smart Card Rack", serial);
        if (slots > 0) rackSimAddSlots(device, 1, slots);
        EXPECT_EQ(FT_OpenEx(const_cast<char*>(serial), FT_OPEN_BY_SERIAL_NUMBER, &handle), FT_OK);
        return device;
    }

    void write(const Bytes& bytes)
    {
        uint32_t written = 0;
        ASSERT_EQ(FT_Write(handle, const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &written),
                  FT_OK);
        ASSERT_EQ(written, bytes.size());
    }

    uint32_t queued()
    {
        uint32_t n = 0;
        EXPECT_EQ(FT_GetQueueStatus(handle, &n), FT_OK);
        return n;
    }

    // Everything readable at this moment.
    Bytes readNow()
    {
        Bytes got(8192);
        uint32_t n = 0;
        EXPECT_EQ(FT_Read(handle, got.data(), static_cast<uint32_t>(got.size()), &n), FT_OK);
        got.resize(n);
        return got;
    }

    // Reads until `count` bytes came or a generous limit ran out.
    Bytes readBytes(size_t count, std::chrono::milliseconds limit = std::chrono::milliseconds(5000))
    {
        Bytes all;
        auto deadline = Clock::now() + limit;
        while (all.size() < count && Clock::now() < deadline) {
            Bytes part(count - all.size());
            uint32_t n = 0;
            EXPECT_EQ(FT_Read(handle, part.data(), static_cast<uint32_t>(part.size()), &n), FT_OK);
            all.insert(all.end(), part.begin(), part.begin() + n);
            if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return all;
    }

    // Writes one frame and returns what is readable right after it; with
    // pacing off and no card delay the rack has answered by then.
    Bytes exchange(const Bytes& frame)
    {
        write(frame);
        return readNow();
    }

    std::vector<Bytes> wireLog(int device)
    {
        std::vector<Bytes> log;
        for (int i = 0; i < rackSimWireLogCount(device); ++i) {
            Bytes entry(4096);
            int n = rackSimWireLogEntry(device, i, entry.data(), static_cast<int>(entry.size()), nullptr);
            entry.resize(static_cast<size_t>(n));
            log.push_back(entry);
        }
        return log;
    }

    FT_HANDLE handle = nullptr;
};

// One rack of four populated slots, open.
class SimOpenRack : public SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        rack = openRack();
    }
    int rack = -1;
};

}  // namespace simtest
