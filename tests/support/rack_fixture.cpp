#include "support/rack_fixture.h"

#include <cstdio>
#include <mutex>
#include <regex>
#include <unistd.h>

namespace test_support {

std::string logTexts(const std::string& log)
{
    // A narrow entry's stamp: "dd-mm-YYYY HH:MM:SS  [phase]\t"; a wide
    // entry's: "dd-mm-YYYY HH:MM:SS\t".
    static const std::regex stamp(R"(\d{2}-\d{2}-\d{4} \d{2}:\d{2}:\d{2}(  \[\d{1,3}\])?\t)");
    return std::regex_replace(log, stamp, "");
}

void RackFixture::SetUp()
{
    rackSimReset();
    platform::testing::setTimeScale(kTimeScale);
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "-" + info->name();
    for (char& c : name)
        if (c == '/') c = '_';
    logPath_ = "/tmp/tessel-test-" + std::to_string(getpid()) + "-" + name + ".log";
    platform::testing::setLogFilePath(logPath_);
    clearLog();
}

void RackFixture::TearDown()
{
    registry_testing::shutdownAllRacks();
    rackSimReset();
    if (!HasFailure()) std::remove(logPath_.c_str());
}

void RackFixture::clearLog()
{
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
    g_logPath.clear();
    std::remove(logPath_.c_str());
}

int RackFixture::addRack(const std::string& serial, int slots)
{
    int device = rackSimAddDevice("Smart Card Rack", serial.c_str());
    if (slots > 0) rackSimAddSlots(device, 1, slots);
    return device;
}

void RackFixture::insertCard(int device, int address, const std::vector<uint8_t>& atr)
{
    rackSimInsertCard(device, address, atr.data(), static_cast<int>(atr.size()));
}

void RackFixture::startLibrary(size_t expectedRacks)
{
    KickOff();
    waitForDiscoveryThreads();
    ASSERT_EQ(g_racks.size(), expectedRacks);
    if (expectedRacks > 0) {
        ASSERT_TRUE(waitUntil([] { return allRacksEnumerated(); })) << "racks not enumerated";
    }
}

size_t OneRackFixture::occurrences(const std::string& text) const
{
    std::string entries = logText();
    size_t n = 0;
    for (size_t at = entries.find(text); at != std::string::npos; at = entries.find(text, at + 1)) ++n;
    return n;
}

std::vector<std::vector<uint8_t>> RackFixture::wireLog(int device) const
{
    std::vector<std::vector<uint8_t>> frames;
    int count = rackSimWireLogCount(device);
    for (int i = 0; i < count; ++i) {
        std::vector<uint8_t> frame(8192);
        long long when = 0;
        int length = rackSimWireLogEntry(device, i, frame.data(), static_cast<int>(frame.size()), &when);
        if (length < 0) break;
        frame.resize(static_cast<size_t>(length));
        frames.push_back(frame);
    }
    return frames;
}

}  // namespace test_support
