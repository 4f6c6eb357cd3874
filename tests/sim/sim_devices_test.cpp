// Listing, opening and closing devices through the D2XX face.
#include "sim_host.h"

#include <array>
#include <cstring>

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

TEST_F(SimDevices, RecordsTheLineSettingsOfThisOpen)
{
    int rack = openRack("TR1");
    unsigned baud = 1;
    int bits = 1, stop = 1, parity = 1;
    ASSERT_EQ(rackSimLineSettings(rack, &baud, &bits, &stop, &parity), 0);
    EXPECT_EQ(baud, 0u);
    EXPECT_EQ(bits, 0);

    ASSERT_EQ(FT_SetBaudRate(handle, 115200), FT_OK);
    for (const auto& line : {std::array<int, 3>{8, 0, 0}, std::array<int, 3>{7, 2, 1}}) {
        ASSERT_EQ(FT_SetDataCharacteristics(handle, static_cast<uint8_t>(line[0]), static_cast<uint8_t>(line[1]),
                                            static_cast<uint8_t>(line[2])),
                  FT_OK);
        baud = 0;
        ASSERT_EQ(rackSimLineSettings(rack, &baud, &bits, &stop, &parity), 0);
        EXPECT_EQ(baud, 115200u);
        EXPECT_EQ((std::array<int, 3>{bits, stop, parity}), line);
    }

    // A new open starts from nothing set.
    FT_Close(handle);
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR1"), FT_OPEN_BY_SERIAL_NUMBER, &handle), FT_OK);
    rackSimLineSettings(rack, &baud, nullptr, nullptr, nullptr);
    EXPECT_EQ(baud, 0u);
}

}  // namespace
