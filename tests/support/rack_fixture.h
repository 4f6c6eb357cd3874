// Test fixture: the library in this process against the rack emulator,
// with every pause and time-out of the library shortened by one factor.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "diag/trace_log.h"
#include "pcsc/registry.h"
#include "pcsc/registry_testing.h"
#include "reader/reader.h"
#include "platform/test_seam.h"
#include "sim/rack_sim.h"

namespace test_support {

// Library time runs this many times faster than real time in tests.
constexpr uint32_t kTimeScale = 10;

// Polls `condition` until it holds or `limit` of real time has passed.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(20000))
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// SCardEstablishContext gives up on unfinished racks once more than 15
// whole seconds have passed and traces "Time: " with the seconds it counted.
// A loaded machine can wake the wait late, so a test takes the count from
// the log, checks that it is past the limit, and puts it in the text it
// expects instead of a fixed 16.
inline std::string withEstablishSeconds(const std::string& log)
{
    const size_t at = log.find("Time: ");
    if (at == std::string::npos) return log;
    size_t end = at + 6;
    while (end < log.size() && log[end] >= '0' && log[end] <= '9') ++end;
    const int seconds = std::atoi(log.substr(at + 6, end - at - 6).c_str());
    EXPECT_GE(seconds, 16) << log;
    return log.substr(0, at) + "Time: 16" + log.substr(end);
}

inline std::string readFile(const std::string& path)
{
    std::string text;
    if (FILE* file = std::fopen(path.c_str(), "rb")) {
        char chunk[4096];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, n);
        std::fclose(file);
    }
    return text;
}

// The texts of the log's entries with their stamps taken off, joined in
// file order. Entries without a line end run on as in the file.
std::string logTexts(const std::string& log);

// An ATR that offers T=0 (TD1 = 0x00 announces T=0).
inline std::vector<uint8_t> atrT0() { return {0x3B, 0x80, 0x00}; }
// An ATR that offers T=1.
inline std::vector<uint8_t> atrT1() { return {0x3B, 0x80, 0x01}; }

class RackFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Adds a "Smart Card Rack" device with `slots` populated slots from
    // address 1 on; returns the device index.
    int addRack(const std::string& serial, int slots);

    // Puts a card with `atr` in a slot (before start-up: no event frame).
    void insertCard(int device, int address, const std::vector<uint8_t>& atr);

    // Runs the start-up (KickOff) and waits, in real time, until every
    // rack that discovery will find is enumerated.
    void startLibrary(size_t expectedRacks);

    // The log file of this test, and its entry texts.
    std::string log() const { return readFile(logPath_); }
    std::string logText() const { return logTexts(log()); }
    void clearLog();

    // Every FT_Write the host made to a device, in order.
    std::vector<std::vector<uint8_t>> wireLog(int device) const;

    std::string logPath_;
};

// One rack brought up, with the log started afresh after the bring-up so
// that a test counts only its own entries.
class OneRackFixture : public RackFixture {
protected:
    void startRack(const std::string& serial, int slots)
    {
        device_ = addRack(serial, slots);
        startLibrary(1);
        rack_ = g_racks[0];
        clearLog();
    }
    Reader* reader(int address) const { return rack_->readers()[static_cast<size_t>(address) - 1]; }
    // How often `text` stands in the log's entry texts.
    size_t occurrences(const std::string& text) const;

    int device_ = -1;
    Rack* rack_ = nullptr;
};

}  // namespace test_support

namespace test_support {

// A frame from a slot as a rack sends it, with its checksum.
inline std::vector<uint8_t> slotFrame(uint8_t address, uint8_t status, const std::vector<uint8_t>& data)
{
    // Built by appending into reserved room: GCC 12 misreads an insert into
    // a vector made from an initializer list as writing past its end.
    std::vector<uint8_t> frame;
    frame.reserve(4 + data.size() + 1);
    frame.assign({0x55, address, static_cast<uint8_t>(data.size()), status});
    frame.insert(frame.end(), data.begin(), data.end());
    uint32_t sum = 0;
    for (uint8_t b : frame) sum += b;
    frame.push_back(static_cast<uint8_t>(0x100 - (sum & 0xFF)));
    return frame;
}

inline void inject(int device, const std::vector<uint8_t>& bytes)
{
    rackSimInjectBytes(device, bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace test_support
