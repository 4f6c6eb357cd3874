// Bring-up of racks end to end: discovery, reset, enumeration, the readers
// made from the slot map, status collection and the closing exchange, as
// seen on the wire and in the log.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "platform/test_seam.h"
#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace {

using namespace test_support;
using Bytes = std::vector<uint8_t>;

const Bytes kReset{0x55, 0x00, 0x00, 0xF0, 0xBB};
const Bytes kEnumerate{0x55, 0x00, 0x00, 0xC1, 0xEA};
const Bytes kCollected{0x55, 0x00, 0x00, 0xC2, 0xE9};

class BringUp : public RackFixture {
protected:
    void expectWire(int device, int slots)
    {
        std::vector<Bytes> wire = wireLog(device);
        ASSERT_EQ(wire.size(), static_cast<size_t>(slots) + 3);
        EXPECT_EQ(wire[0], kReset);
        EXPECT_EQ(wire[1], kEnumerate);
        for (int a = 1; a <= slots; ++a)
            EXPECT_EQ(wire[static_cast<size_t>(a) + 1], slotFrame(static_cast<uint8_t>(a), 0x00, {}));
        EXPECT_EQ(wire.back(), kCollected);
        EXPECT_EQ(rackSimCounter(device, RACKSIM_BUS_VIOLATIONS), 0);
    }
};

class BringUpSizes : public BringUp, public ::testing::WithParamInterface<int> {};

TEST_P(BringUpSizes, MakesOneReaderPerSlotInAddressOrderAndCollectsEveryStatus)
{
    const int slots = GetParam();
    int device = addRack("A1B2C3", slots);
    insertCard(device, 1, atrT1());
    startLibrary(1);

    Rack* rack = g_racks[0];
    ASSERT_EQ(rack->readers().size(), static_cast<size_t>(slots));
    for (int a = 1; a <= slots; ++a) {
        Reader* reader = rack->readers()[static_cast<size_t>(a) - 1];
        EXPECT_EQ(reader->address, static_cast<uint32_t>(a));
        EXPECT_EQ(reader->name, "Tessel A1B2C3 R" + std::to_string(a));
        EXPECT_EQ(reader->cardState(), a == 1 ? kStateCard : kStateNoCard);
    }
    EXPECT_EQ(rack->readers()[0]->atrLength(), 3u);
    expectWire(device, slots);
    EXPECT_EQ(rack->statusCount(), static_cast<uint32_t>(slots));

    std::string text = logText();
    const std::vector<std::string> inOrder = {
        "QuorvaneTesselRack driver: 1.2.3\r\n",
        "Found device with serial A1B2C3\n",
        "connect\n",
        "Rack A1B2C3 connected\n",
        "reset\n",
        "ResettingRack: 55 00 00 f0 bb \n",
        "enum\n",
        "StartingEnum: 55 00 00 c1 ea \n",
        "Starting enumeration\n",
        "SCR A1B2C3 Found " + std::to_string(slots) + " readers\n",
        "Tessel A1B2C3 R1: Reader with card found.\n",
        "SCR A1B2C3: Status collection complete, sending C2\n",
        "c2\n",
        "SRC A1B2C3: Enumeration complete.\n",
    };
    size_t at = 0;
    for (const std::string& line : inOrder) {
        size_t found = text.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line;
        at = found + line.size();
    }
    if (slots >= 2) {
        EXPECT_NE(text.find("Tessel A1B2C3 R2 Reader without card found.\n"), std::string::npos);
    }
    // The seconds the write took, in whole seconds of the calendar clock.
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(Tessel A1B2C3 R1 Tx - 55 01 00 00 aa : [01]\.000000\n)")));
}

INSTANTIATE_TEST_SUITE_P(Slots, BringUpSizes, ::testing::Values(1, 3, 240));

// Racks come up in the order of the device list; other devices are passed
// over without a trace, and a rack that fails to open is dropped.
TEST_F(BringUp, RacksFollowTheDeviceListOtherDevicesAreSkippedAndOneThatFailsToOpenIsDropped)
{
    rackSimAddDevice("Smart Card Rack 2", "NOTME1");
    int busy = addRack("BUSY", 2);  // ahead of the racks, whose threads would trace in between
    rackSimSetOpenFails(busy, 1);
    int first = addRack("ZZ9", 2);
    rackSimAddDevice("smart card rack", "NOTME2");
    int second = addRack("AA1", 2);
    startLibrary(2);

    EXPECT_EQ(g_racks[0]->serialNumber(), "ZZ9");
    EXPECT_EQ(g_racks[1]->serialNumber(), "AA1");
    std::string text = logText();
    EXPECT_EQ(text.find("NOTME"), std::string::npos);
    EXPECT_NE(text.find("Found device with serial BUSY\nno rack found"), std::string::npos);
    EXPECT_EQ(rackSimWireLogCount(busy), 0);
    EXPECT_EQ(rackSimIsOpen(busy), 0);
    expectWire(first, 2);
    expectWire(second, 2);
}

TEST_F(BringUp, NoDevicesAtAllLeavesAnEmptyRegistry)
{
    startLibrary(0);
    EXPECT_FALSE(allRacksEnumerated()) << "an empty registry never counts as enumerated";
    EXPECT_EQ(logText(), "QuorvaneTesselRack driver: 1.2.3\r\nNo racks found!");
}

TEST_F(BringUp, SlotMapBytesGiveAReaderOnlyForLowNibbleOneToThree)
{
    int device = rackSimAddDevice("Smart Card Rack", "MAP");
    const std::pair<int, uint8_t> map[] = {{1, 0x01}, {2, 0x12}, {3, 0x23}, {4, 0x04}, {5, 0x15}, {6, 0x35},
                                           {7, 0xF3}, {8, 0x00}, {240, 0x02}};
    for (auto [address, byte] : map) rackSimSetSlotMapByte(device, address, byte);
    startLibrary(1);
    std::vector<uint32_t> addresses;
    for (size_t i = 0; i < g_racks[0]->readers().size(); ++i) addresses.push_back(g_racks[0]->readers()[i]->address);
    EXPECT_EQ(addresses, (std::vector<uint32_t>{1, 2, 3, 7, 240}));
}

// Unenumerated until its bring-up overruns its limit; then given up, and
// from then on it holds up no wait for the racks.
TEST_F(BringUp, MasterThatNeverAnswersTheClosingFrameIsGivenUpAfterItsLimit)
{
    int device = addRack("MUTE", 2);
    rackSimSetDeviceFault(device, RACKSIM_MASTER_SILENT_COLLECTED, 1);
    KickOff();
    waitForDiscoveryThreads();
    ASSERT_EQ(g_racks.size(), 1u);
    ASSERT_TRUE(waitUntil([&] { return wireLog(device).size() >= 5; }));  // reset, enum, 2 requests, C2
    EXPECT_EQ(wireLog(device)[4], kCollected);
    EXPECT_EQ(g_racks[0]->readers().size(), 2u);
    EXPECT_FALSE(g_racks[0]->enumerated());
    ASSERT_TRUE(waitUntil([&] { return g_racks[0]->everLost(); }));
    EXPECT_NE(logText().find("Rack MUTE bring-up failed\n"), std::string::npos);
    EXPECT_TRUE(allRacksEnumerated()) << "a rack given up holds up no one";
    EXPECT_EQ(g_racks[0]->readers().size(), 2u) << "nothing freed";
}

TEST_F(BringUp, CloseConnectionsClosesEveryLinkAndKeepsTheRacks)
{
    int device = addRack("CLOSE", 1);
    startLibrary(1);
    CloseConnections();
    EXPECT_EQ(rackSimIsOpen(device), 0);
    EXPECT_EQ(g_racks.size(), 1u);
    EXPECT_NE(logText().find("Disconnecting from card rack\n"), std::string::npos);
}

// The fast link setting, read afresh for one bring-up. Every wait on the
// device's event is made far longer than the bring-up may take, so the
// rack comes up only if the device's signals wake the receive thread.
// Without the fast link, the bring-up alone runs on the shortest timer and
// the driver's comes back after it.
#define kBringUpTimerText "Bring-up: latency timer 2 ms until the slots have answered\n"

struct FastLinkCase {
    const char* name;
    const char* value;  // null: not set
    bool optionalFunctionsMissing;
    int latencyTimerMs;  // in force on the device after the bring-up
    bool wokenByEvents;
    const char* traces;
    bool latencyTimerRefused = false;  // the driver refuses FT_SetLatencyTimer
};

void PrintTo(const FastLinkCase& row, std::ostream* out) { *out << row.name; }

class FastLinkSetting : public BringUp, public ::testing::WithParamInterface<FastLinkCase> {
protected:
    void TearDown() override
    {
        BringUp::TearDown();
        unsetenv("TESSEL_FAST_LINK");
        platform::testing::rereadSettings();
        platform::testing::setDeviceEventWaitMs(0);
        platform::testing::hideOptionalD2xxFunctions(false);
    }
};

TEST_P(FastLinkSetting, SetsTheLatencyTimerAndWakesOnReceivedBytesOrTracesWhyNot)
{
    const FastLinkCase& row = GetParam();
    if (row.value != nullptr) setenv("TESSEL_FAST_LINK", row.value, 1);
    platform::testing::rereadSettings();
    platform::testing::setDeviceEventWaitMs(600000);
    platform::testing::hideOptionalD2xxFunctions(row.optionalFunctionsMissing);
    int device = addRack("FAST", 2);
    rackSimRefuseLatencyTimer(device, row.latencyTimerRefused ? 1 : 0);
    startLibrary(1);

    expectWire(device, 2);
    EXPECT_EQ(rackSimLatencyTimerMs(device), row.latencyTimerMs);
    EXPECT_EQ(rackSimCounter(device, RACKSIM_EVENTS_SIGNALLED) > 0, row.wokenByEvents);
    std::string text = logText();
    EXPECT_NE(text.find(std::string("connect\n") + row.traces + "Rack FAST connected\n"), std::string::npos) << text;
    const bool timerShortened = std::string(row.traces).find(kBringUpTimerText) != std::string::npos;
    EXPECT_EQ(text.find("Bring-up over: latency timer 16 ms\nc2\n") != std::string::npos, timerShortened) << text;
}

INSTANTIATE_TEST_SUITE_P(
    Values, FastLinkSetting,
    ::testing::Values(
        FastLinkCase{"Unset", nullptr, false, 16, false, kBringUpTimerText},
        FastLinkCase{"UnsetWithoutTimerFunctions", nullptr, true, 16, false, ""},
        FastLinkCase{"TwoMs", "2", false, 2, true, "Fast link: latency timer 2 ms\nFast link: woken by received bytes\n"},
        FastLinkCase{"LongestTimer", "255", false, 255, true, "Fast link: latency timer 255 ms\nFast link: woken by received bytes\n"},
        FastLinkCase{"FunctionsMissing", "2", true, 16, false,
                     "Fast link: FT_SetLatencyTimer not found, latency timer left as the driver has it\n"
                     "Fast link: FT_SetEventNotification not found, polling every 5 ms\n"},
        FastLinkCase{"Refused", "2", false, 16, true,
                     "Fast link: FT_SetLatencyTimer refused 2 ms (status 18), latency timer left as the driver has it\n"
                     "Fast link: woken by received bytes\n",
                     true},
        FastLinkCase{"Zero", "0", false, 16, false, "TESSEL_FAST_LINK=0 ignored: a latency timer of 2 to 255 ms is expected\n" kBringUpTimerText},
        FastLinkCase{"OneIsOutsideTheDriversRange", "1", false, 16, false,
                     "TESSEL_FAST_LINK=1 ignored: a latency timer of 2 to 255 ms is expected\n" kBringUpTimerText},
        FastLinkCase{"TooLong", "256", false, 16, false,
                     "TESSEL_FAST_LINK=256 ignored: a latency timer of 2 to 255 ms is expected\n" kBringUpTimerText},
        FastLinkCase{"WithUnit", "2ms", false, 16, false,
                     "TESSEL_FAST_LINK=2ms ignored: a latency timer of 2 to 255 ms is expected\n" kBringUpTimerText}),
    [](const ::testing::TestParamInfo<FastLinkCase>& info) { return std::string(info.param.name); });

}  // namespace
