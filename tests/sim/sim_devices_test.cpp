// Listing, opening and closing devices through the D2XX face.
#include "sim_host.h"

#include <array>
#include <cstring>

#include "sim/rack_setup.h"

using namespace simtest;

namespace {

class SimDevices : public SimTest {};

// The info list is the one the last create made, with texts cut to their
// fields.
TEST_F(SimDevices, ListsEveryDeviceInOrderWithDescriptionSerialAndOpenFlag)
{
    rackSimAddDevice("Smart Card Rack", "0123456789ABCDEFGHIJ");
    rackSimAddDevice("USB Serial Converter", "FT99");
    rackSimAddDevice("Smart Card Rack", "TR2");

    uint32_t count = 0;
    ASSERT_EQ(FT_ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY), FT_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(FT_ListDevices(&count, nullptr, 0), FT_INVALID_PARAMETER);

    FT_HANDLE second = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR2"), FT_OPEN_BY_SERIAL_NUMBER, &second), FT_OK);

    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    ASSERT_EQ(count, 3u);
    rackSimAddDevice("Smart Card Rack", "LATE");
    FT_DEVICE_LIST_INFO_NODE records[4];
    std::memset(records, 0xCC, sizeof records);
    ASSERT_EQ(FT_GetDeviceInfoList(records, &count), FT_OK);
    ASSERT_EQ(count, 3u);

    const struct {
        const char *description, *serial;
        FT_HANDLE handle;
    } expected[3] = {{"Smart Card Rack", "0123456789ABCDE", nullptr}, {"USB Serial Converter", "FT99", nullptr},
                     {"Smart Card Rack", "TR2", second}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_STREQ(records[i].Description, expected[i].description) << i;
        EXPECT_STREQ(records[i].SerialNumber, expected[i].serial) << i;
        EXPECT_EQ(records[i].Flags & 1u, expected[i].handle != nullptr ? 1u : 0u) << i << ": the open flag";
        EXPECT_EQ(records[i].ftHandle, expected[i].handle) << i;
    }
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    EXPECT_EQ(count, 4u);
}

TEST_F(SimDevices, OpensBySerialAndRefusesUnknownHeldOrFailingDevices)
{
    int rack = rackSimAddDevice("Smart Card Rack", "TR1");
    int held = rackSimAddDevice("Smart Card Rack", "TR2");
    rackSimSetOpenFails(held, 1);

    FT_HANDLE h = nullptr;
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("NOPE"), FT_OPEN_BY_SERIAL_NUMBER, &h), FT_DEVICE_NOT_FOUND);
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("TR2"), FT_OPEN_BY_SERIAL_NUMBER, &h), FT_DEVICE_NOT_OPENED);
    EXPECT_EQ(rackSimIsOpen(held), 0);
    EXPECT_EQ(rackSimCounter(held, RACKSIM_OPENS), 0);

    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &h), FT_OK);
    EXPECT_NE(h, nullptr);
    EXPECT_EQ(rackSimIsOpen(rack), 1);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_OPENS), 1);

    FT_HANDLE again = nullptr;
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &again), FT_DEVICE_NOT_OPENED);

    rackSimSetOpenFails(held, 0);
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("TR2"), FT_OPEN_BY_SERIAL_NUMBER, &again), FT_OK);
    EXPECT_NE(again, h);
}

TEST_F(SimDevices, ClosedAndRemovedHandlesAreInvalid)
{
    int rack = openRack("TR1");
    FT_HANDLE first = handle;
    ASSERT_EQ(FT_Close(first), FT_OK);
    EXPECT_EQ(rackSimIsOpen(rack), 0);

    uint8_t buffer[8] = {0x55, 0, 0, 0xC1, 0xEA};
    uint32_t n = 0;
    EXPECT_EQ(FT_Read(first, buffer, sizeof buffer, &n), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_Close(first), FT_INVALID_HANDLE);

    // A new open is a new handle; the old one stays dead.
    FT_HANDLE second = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &second), FT_OK);
    EXPECT_NE(second, first);
    EXPECT_EQ(FT_Write(first, buffer, 5, &n), FT_INVALID_HANDLE);
    EXPECT_EQ(rackSimWireLogCount(rack), 0);

    rackSimReset();
    EXPECT_EQ(FT_Write(second, buffer, 5, &n), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_Read(second, buffer, sizeof buffer, &n), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_GetQueueStatus(second, &n), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_SetBaudRate(second, 115200), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_SetDataCharacteristics(second, 8, 0, 0), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_Close(second), FT_INVALID_HANDLE);
    EXPECT_EQ(FT_Read(nullptr, buffer, sizeof buffer, &n), FT_INVALID_HANDLE);

    // And the control surface refuses what is gone.
    EXPECT_EQ(rackSimIsOpen(rack), -1);
    EXPECT_EQ(rackSimWireLogCount(rack), -1);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_OPENS), -1);
    EXPECT_EQ(rackSimLineSettings(rack, nullptr, nullptr, nullptr, nullptr), -1);
}

// A pulled cable: the held handle fails with FT_IO_ERROR until a new device
// list leaves the device out, then with FT_DEVICE_NOT_FOUND; the device
// cannot be opened while away, and opens with a fresh handle once back.
TEST_F(SimDevices, UnpluggedDeviceFailsItsHandleLeavesTheListAndComesBack)
{
    const int rack = openRack("TR1");
    rackSimAddDevice("Smart Card Rack", "TR2");
    FT_HANDLE held = handle;
    uint8_t buffer[8] = {0x55, 0, 0, 0xC1, 0xEA};
    uint32_t n = 0;
    EXPECT_EQ(rackSimIsPlugged(rack), 1);
    rackSimUnplug(rack);
    EXPECT_EQ(rackSimIsPlugged(rack), 0);
    EXPECT_EQ(rackSimIsOpen(rack), 0);
    EXPECT_EQ(FT_Write(held, buffer, 5, &n), FT_IO_ERROR);
    EXPECT_EQ(FT_GetQueueStatus(held, &n), FT_IO_ERROR);
    EXPECT_EQ(FT_Read(held, buffer, sizeof buffer, &n), FT_IO_ERROR);
    EXPECT_EQ(rackSimWireLogCount(rack), 0);

    uint32_t count = 0;
    ASSERT_EQ(FT_ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY), FT_OK);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    ASSERT_EQ(count, 1u);
    FT_DEVICE_LIST_INFO_NODE record{};
    ASSERT_EQ(FT_GetDeviceInfoList(&record, &count), FT_OK);
    EXPECT_STREQ(record.SerialNumber, "TR2");
    EXPECT_EQ(FT_GetQueueStatus(held, &n), FT_DEVICE_NOT_FOUND);
    FT_HANDLE again = nullptr;
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &again), FT_DEVICE_NOT_FOUND);

    rackSimPlug(rack);
    ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(FT_GetQueueStatus(held, &n), FT_DEVICE_NOT_FOUND) << "a handle from before stays failed";
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &again), FT_OK);
    EXPECT_NE(again, held);
    EXPECT_EQ(FT_Close(held), FT_OK) << "the failed handle is freed";
    EXPECT_EQ(FT_Close(held), FT_INVALID_HANDLE);
    handle = again;
    EXPECT_EQ(exchange({0x55, 0x00, 0x00, 0xC1, 0xEA}).size(), 245u) << "the rack answers again";
    EXPECT_EQ(rackSimIsPlugged(7), -1);
}

TEST_F(SimDevices, RecordsTheLineSettingsOfThisOpen)
{
    int rack = openRack("TR1");
    unsigned baud = 1;
    int bits = 1, stop = 1, parity = 1;
    ASSERT_EQ(rackSimLineSettings(rack, &baud, &bits, &stop, &parity), 0);
    EXPECT_EQ(baud, 0u);
    EXPECT_EQ(bits, 0);

    ASSERT_EQ(FT_SetBaudRate(handle, 115200), FT_OK);
    ASSERT_EQ(FT_SetDataCharacteristics(handle, 7, 2, 1), FT_OK);
    ASSERT_EQ(rackSimLineSettings(rack, &baud, &bits, &stop, &parity), 0);
    EXPECT_EQ(baud, 115200u);
    EXPECT_EQ((std::array<int, 3>{bits, stop, parity}), (std::array<int, 3>{7, 2, 1}));

    // A new open starts from nothing set.
    FT_Close(handle);
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &handle), FT_OK);
    rackSimLineSettings(rack, &baud, nullptr, nullptr, nullptr);
    EXPECT_EQ(baud, 0u);
}

// The racks that a host which cannot call the control surface describes in
// TESSEL_SIM: the device list, each rack's slot map and each slot's state,
// as a host sees them through the D2XX functions. Bad text leaves no racks.
TEST_F(SimDevices, RacksDescribedByText)
{
    const Bytes defaultAtr{0x3B, 0x8A, 0x80, 0x01, 0x54, 0x65, 0x73, 0x73, 0x65, 0x6C, 0x52, 0x61, 0x63, 0x6B, 0x08};
    struct Row {
        std::string text;
        int racks;  // -1: the text is refused, and the rest is not looked at
        int slots = 0, cards = 0, mute = 0;
        bool echo = false;
        Bytes atr = {};
        int swapAfterMs = 0, swapSlot = 1;  // the card swap the text asks for
    };
    const Bytes swapAtr{0x3B, 0x8A, 0x80, 0x01, 0x54, 0x65, 0x73, 0x73, 0x65, 0x6C, 0x53, 0x77, 0x61, 0x70, 0x06};
    const Row rows[] = {
        {"racks=2,slots=8,cards=3,mute=1,echo=1", 2, 8, 3, 1, true, defaultAtr},
        {"", 1, 4, 2, 0, false, defaultAtr},
        {"slots=3,cards=1,atr=3B:02 14:50,", 1, 3, 1, 0, false, {0x3B, 0x02, 0x14, 0x50}},
        {"event=8000", 1, 4, 2, 0, false, defaultAtr},
        {"event=soon", -1},
        {"swap=3000@4", 1, 4, 2, 0, false, defaultAtr, 3000, 4},
        {"slots=3,cards=3,swap=500", 1, 3, 3, 0, false, defaultAtr, 500, 1},
        {"slots=2,cards=1,atr=3B8A8001 5465737365 6C53776170 06,swap=1", 1, 2, 1, 0, false, swapAtr, 1, 1},
        {"slots=3,swap=500@4", -1},
        {"swap=500@0", -1},
        {"swap=500@", -1},
        {"swap=@2", -1},
        {"swap=soon", -1},
        {"slots=4,cards=5", -1},
        {"slots=4,cards=3,mute=2", -1},
        {"racks=0", -1},
        {"racks=17", -1},
        {"racks=2,colour=red", -1},
        {"racks", -1},
        {"echo=yes", -1},
        {"atr=3B0", -1},
        {"atr=3BXX", -1},
        {"atr=" + std::string(66, 'A'), -1},
        // Slots given over to virtual cards are empty until a card comes
        // (here none: nothing listens on port 1).
        {"slots=5,vcard=3-4@connect:1,vcard=5@connect:9", 1, 5, 2, 0, false, defaultAtr},
        {"vcard=5@35963", -1},
        {"slots=8,vcard=3-2@35963", -1},
        {"slots=8,vcard=3-4@1,vcard=4@9", -1},
        {"vcard=3@0", -1},
        {"vcard=3@65536", -1},
        {"vcard=3-4@65535", -1},
        {"vcard=3", -1},
        {"vcard=3@dial:35963", -1},
        // Timed bus events: the racks are all there at set-up.
        {"racks=2,unplug=TR0002@5000+3000,unplug=TR0001@9000,powercycle=TR0001@100", 2, 4, 2, 0, false, defaultAtr},
        {"unplug=TR0002@5000", -1},
        {"unplug=TR0001", -1},
        {"unplug=@5000", -1},
        {"unplug=TR0001@soon", -1},
        {"unplug=TR0001@5000+0", -1},
        {"plug=TR0001@5000+300", -1},
        {"powercycle=TR0001@5000+300", -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("\"" + row.text + "\"");
        rackSimAddDevice("Smart Card Rack", "OLD");
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(rackSimSetUp(row.text.c_str()), row.racks);
        const std::string message = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(message.find("TESSEL_SIM") != std::string::npos, row.racks < 0) << message;

        uint32_t count = 99;
        ASSERT_EQ(FT_CreateDeviceInfoList(&count), FT_OK);
        ASSERT_EQ(count, static_cast<uint32_t>(std::max(row.racks, 0)));
        if (row.racks < 0) continue;

        // The swap is made only when the emulator loads; here, what it
        // would be: its time, its slot, and a card that differs.
        racksim::RackSetup setup;
        std::string error;
        ASSERT_TRUE(racksim::parseRackSetupText(row.text, setup, error)) << error;
        EXPECT_EQ(setup.cardSwapAfterMs, row.swapAfterMs);
        EXPECT_EQ(setup.cardSwapSlot, row.swapSlot);
        const Bytes swapped = racksim::swappedCardAtr(setup.atr);
        EXPECT_EQ(swapped, row.atr == swapAtr ? defaultAtr : swapAtr);

        std::vector<FT_DEVICE_LIST_INFO_NODE> records(count);
        ASSERT_EQ(FT_GetDeviceInfoList(records.data(), &count), FT_OK);
        for (int rack = 0; rack < row.racks; ++rack) {
            EXPECT_STREQ(records[rack].Description, "Smart Card Rack");
            EXPECT_EQ(std::string(records[rack].SerialNumber), "TR000" + std::to_string(rack + 1));
        }

        // The last rack: its map and every slot's answer to a status request.
        FT_HANDLE last = nullptr;
        ASSERT_EQ(FT_OpenEx(records[row.racks - 1].SerialNumber, FT_OPEN_BY_SERIAL_NUMBER, &last), FT_OK);
        handle = last;
        const Bytes map = exchange({0x55, 0x00, 0x00, 0xC1, 0xEA});
        ASSERT_EQ(map.size(), 245u);
        EXPECT_EQ(std::count(map.begin() + 4, map.end() - 1, 0x01), row.slots);
        for (int slot = 1; slot <= row.slots; ++slot) {
            const uint8_t a = static_cast<uint8_t>(slot);
            const Bytes state = slot <= row.cards              ? hostFrame(a, 0x05, row.atr)
                                : slot <= row.cards + row.mute ? hostFrame(a, 0x03)
                                                               : hostFrame(a, 0x01);
            EXPECT_EQ(exchange(hostFrame(a, 0x00)), concat({hostFrame(a, 0x06), state})) << slot;
        }
        const Bytes answer = row.echo ? Bytes{0x00, 0xA4} : Bytes{0x90, 0x00};
        EXPECT_EQ(exchange(hostFrame(1, 0x40, {0x00, 0xA4})), concat({hostFrame(1, 0x06), hostFrame(1, 0x04, answer)}));
        FT_Close(last);
        handle = nullptr;
    }
}

}  // namespace
