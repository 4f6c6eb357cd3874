// Attributes and the small calls: every attribute served in every buffer
// form, the ids outside the set, control codes, the calls without effect,
// and the exported protocol control records.
#include "pcsc_test_support.h"

#include <cstring>

namespace pcsc_test {
namespace {

using namespace std::string_literals;

enum class Handle { Zero, Card, Empty, Unknown };
enum class Buffer { Sized, None, Auto };

// One SCardGetAttrib: the handle, the attribute, how the host hands over
// its buffer (of `capacity` bytes when sized), and what it must get back:
// the result, the length, the bytes written (nothing past them) and, when
// given, the whole trace.
struct AttribCase {
    Handle handle;
    DWORD id;
    Buffer buffer;
    DWORD capacity;
    LONG result;
    DWORD length;
    std::string written;
    const char* trace;
};

class AttributesTest : public OneRackTest {
protected:
    // R1: a card with a T=1 ATR; R2: empty. A direct connection to each.
    void startReaders()
    {
        startRack({atrOnlyT1(), {}});
        card_ = connectDirect("Tessel A1 R1");
        empty_ = connectDirect("Tessel A1 R2");
        settle();
        clearLog();
    }

    SCARDHANDLE card_ = 0;
    SCARDHANDLE empty_ = 0;

    SCARDHANDLE handleOf(Handle h)
    {
        switch (h) {
        case Handle::Card: return card_;
        case Handle::Empty: return empty_;
        case Handle::Unknown: return 0x1234;
        default: return 0;
        }
    }

    void run(const AttribCase& c)
    {
        clearLog();
        Guarded<BYTE> buffer(c.capacity);
        BYTE* block = nullptr;
        DWORD length = c.buffer == Buffer::Auto ? SCARD_AUTOALLOCATE : c.capacity;
        BYTE* target = c.buffer == Buffer::Sized  ? buffer.data()
                       : c.buffer == Buffer::Auto ? reinterpret_cast<BYTE*>(&block)
                                                  : nullptr;
        EXPECT_EQ(SCardGetAttrib(handleOf(c.handle), c.id, target, &length), c.result);
        EXPECT_EQ(length, c.length);
        const std::string written(c.written);
        if (c.buffer == Buffer::Auto && !written.empty()) {
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(block), written.size()), written);
            EXPECT_EQ(SCardFreeMemory(0, block), SCARD_S_SUCCESS);
        } else {
            EXPECT_EQ(block, nullptr) << "no block handed over";
        }
        if (c.buffer == Buffer::Sized) {
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), written.size()), written);
            for (size_t i = written.size(); i < c.capacity + Guarded<BYTE>::guardCount; ++i)
                ASSERT_EQ(buffer[i], 0x5A) << "written at " << i;
        }
        if (c.trace != nullptr) {
            EXPECT_EQ(logText(), c.trace);
        }
    }
};

const std::string kVendor = "Quorvane Ltd.\0\0\0\0\0\0\0\0\0\0\0"s;  // always 24 bytes
const std::string kAtr = "\x3B\x80\x01"s;
const std::string kIfdType = "Tessel Rack\0"s;
const std::string kName = "Tessel A1 R1\0"s;
const DWORD kWideNameSize = 13 * sizeof(wchar_t);
const DWORD kProtocolTypes = SCARD_ATTR_VALUE(SCARD_CLASS_PROTOCOL, 0x0120);

// A DWORD attribute: four bytes in the machine's order.
std::string dword(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

// A narrow text with its NUL as the wide form's bytes.
std::string wideBytes(const std::string& text)
{
    std::wstring wide(text.begin(), text.end());
    return std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(wchar_t));
}

TEST_F(AttributesTest, EveryAttributeInEveryBufferForm)
{
    startReaders();
    const DWORD vendor = SCARD_ATTR_VENDOR_NAME, atr = SCARD_ATTR_ATR_STRING, autoSize = SCARD_AUTOALLOCATE;
    const AttribCase cases[] = {
        // The vendor name, for any handle; too small a buffer gets what fits.
        {Handle::Zero, vendor, Buffer::Sized, 24, SCARD_S_SUCCESS, 24, kVendor, "get_atr\n"},
        {Handle::Card, vendor, Buffer::Sized, 10, SCARD_E_INSUFFICIENT_BUFFER, 24, "Quorvane L", "get_atr\n"},
        {Handle::Zero, vendor, Buffer::None, 0, SCARD_S_SUCCESS, 24, "", "get_atr\n"},
        {Handle::Unknown, vendor, Buffer::Auto, 0, SCARD_S_SUCCESS, 24, kVendor,
         "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\n"},
        // The ATR. The length entry has no line end; the next entry starts
        // with one.
        {Handle::Card, atr, Buffer::Sized, 32, SCARD_S_SUCCESS, 3, kAtr,
         "get_atr\nget_atr_GetReaderAtr_else\n3\nSCARD_ATTR_ATR_STRING is 3b 80 01 \n"},
        {Handle::Card, atr, Buffer::None, 0, SCARD_S_SUCCESS, 3, "", "get_atr\nget_atr_GetReaderAtr_pbAttr_is_null\n\n3\n"},
        {Handle::Card, atr, Buffer::Auto, 0, SCARD_S_SUCCESS, 3, kAtr,
         "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\nget_atr_GetReaderAtr_auto\n\n3\n"},
        {Handle::Card, atr, Buffer::Sized, 2, SCARD_E_INSUFFICIENT_BUFFER, 3, "\x3B\x80", nullptr},
        {Handle::Empty, atr, Buffer::Sized, 32, SCARD_S_SUCCESS, 0, "", nullptr},
        {Handle::Unknown, atr, Buffer::Sized, 32, SCARD_E_INVALID_HANDLE, 32, "", nullptr},
        {Handle::Unknown, atr, Buffer::Auto, 0, SCARD_E_INVALID_HANDLE, autoSize, "", nullptr},
        // The rest of the set, each with its true length in all three
        // forms; a short buffer gets what fits and the length it needs.
        {Handle::Zero, SCARD_ATTR_VENDOR_IFD_TYPE, Buffer::Sized, 32, SCARD_S_SUCCESS, 12, kIfdType, nullptr},
        {Handle::Zero, SCARD_ATTR_VENDOR_IFD_TYPE, Buffer::Sized, 4, SCARD_E_INSUFFICIENT_BUFFER, 12, "Tess", nullptr},
        {Handle::Zero, SCARD_ATTR_VENDOR_IFD_TYPE, Buffer::None, 0, SCARD_S_SUCCESS, 12, "", nullptr},
        {Handle::Zero, SCARD_ATTR_VENDOR_IFD_TYPE, Buffer::Auto, 0, SCARD_S_SUCCESS, 12, kIfdType, nullptr},
        {Handle::Unknown, SCARD_ATTR_VENDOR_IFD_VERSION, Buffer::Sized, 8, SCARD_S_SUCCESS, 4, dword(0x01020003), nullptr},
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_VERSION, Buffer::Auto, 0, SCARD_S_SUCCESS, 4, dword(0x01020003), nullptr},
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_VERSION, Buffer::None, 0, SCARD_S_SUCCESS, 4, "", nullptr},
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, Buffer::Sized, 8, SCARD_S_SUCCESS, 3, "A1\0"s, nullptr},
        {Handle::Empty, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, Buffer::Auto, 0, SCARD_S_SUCCESS, 3, "A1\0"s, nullptr},
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, Buffer::Sized, 2, SCARD_E_INSUFFICIENT_BUFFER, 3, "A1", nullptr},
        {Handle::Unknown, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, Buffer::Sized, 8, SCARD_E_INVALID_HANDLE, 8, "", nullptr},
        {Handle::Card, SCARD_ATTR_DEVICE_FRIENDLY_NAME_A, Buffer::Sized, 32, SCARD_S_SUCCESS, 13, kName, nullptr},
        {Handle::Card, SCARD_ATTR_DEVICE_SYSTEM_NAME_A, Buffer::None, 0, SCARD_S_SUCCESS, 13, "", nullptr},
        {Handle::Card, SCARD_ATTR_DEVICE_SYSTEM_NAME_A, Buffer::Auto, 0, SCARD_S_SUCCESS, 13, kName, nullptr},
        {Handle::Card, SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, Buffer::Auto, 0, SCARD_S_SUCCESS, kWideNameSize,
         wideBytes(kName), nullptr},
        {Handle::Card, SCARD_ATTR_DEVICE_SYSTEM_NAME_W, Buffer::Sized, 64, SCARD_S_SUCCESS, kWideNameSize,
         wideBytes(kName), nullptr},
        {Handle::Unknown, SCARD_ATTR_DEVICE_SYSTEM_NAME_W, Buffer::Auto, 0, SCARD_E_INVALID_HANDLE, autoSize, "", nullptr},
        {Handle::Card, SCARD_ATTR_CHANNEL_ID, Buffer::Sized, 4, SCARD_S_SUCCESS, 4, dword(0x00200001), nullptr},
        {Handle::Card, SCARD_ATTR_CHANNEL_ID, Buffer::Sized, 3, SCARD_E_INSUFFICIENT_BUFFER, 4,
         dword(0x00200001).substr(0, 3), nullptr},
        {Handle::Card, SCARD_ATTR_CURRENT_PROTOCOL_TYPE, Buffer::Sized, 8, SCARD_S_SUCCESS, 4, dword(SCARD_PROTOCOL_T0),
         nullptr},
        {Handle::Empty, SCARD_ATTR_CURRENT_PROTOCOL_TYPE, Buffer::Auto, 0, SCARD_S_SUCCESS, 4, dword(0), nullptr},
        {Handle::Card, SCARD_ATTR_ICC_PRESENCE, Buffer::Sized, 1, SCARD_S_SUCCESS, 1, "\x02", nullptr},
        {Handle::Empty, SCARD_ATTR_ICC_PRESENCE, Buffer::Auto, 0, SCARD_S_SUCCESS, 1, "\0"s, nullptr},
        {Handle::Card, SCARD_ATTR_ICC_INTERFACE_STATUS, Buffer::Auto, 0, SCARD_S_SUCCESS, 1, "\x01", nullptr},
        {Handle::Empty, SCARD_ATTR_ICC_INTERFACE_STATUS, Buffer::Sized, 4, SCARD_S_SUCCESS, 1, "\0"s, nullptr},
        {Handle::Card, SCARD_ATTR_ICC_INTERFACE_STATUS, Buffer::None, 0, SCARD_S_SUCCESS, 1, "", nullptr},
        {Handle::Zero, kProtocolTypes, Buffer::Sized, 4, SCARD_S_SUCCESS, 4, dword(3), nullptr},
        {Handle::Zero, SCARD_ATTR_DEFAULT_CLK, Buffer::Auto, 0, SCARD_S_SUCCESS, 4, dword(3571), nullptr},
        {Handle::Zero, SCARD_ATTR_MAX_CLK, Buffer::Sized, 4, SCARD_S_SUCCESS, 4, dword(3571), nullptr},
        {Handle::Zero, SCARD_ATTR_DEFAULT_DATA_RATE, Buffer::None, 0, SCARD_S_SUCCESS, 4, "", nullptr},
        {Handle::Zero, SCARD_ATTR_MAX_DATA_RATE, Buffer::Sized, 4, SCARD_S_SUCCESS, 4, dword(9600), nullptr},
        {Handle::Zero, SCARD_ATTR_MAX_IFSD, Buffer::Sized, 4, SCARD_S_SUCCESS, 4, dword(254), nullptr},
        {Handle::Zero, SCARD_ATTR_CHARACTERISTICS, Buffer::Auto, 0, SCARD_S_SUCCESS, 4, dword(0), nullptr},
        {Handle::Zero, SCARD_ATTR_POWER_MGMT_SUPPORT, Buffer::Sized, 4, SCARD_S_SUCCESS, 4, dword(0), nullptr},
        // An id outside the set: the platform's code for an unsupported
        // feature in every form, never 50, and nothing written.
        {Handle::Card, 0x7A007A, Buffer::Sized, 8, SCARD_E_UNSUPPORTED_FEATURE, 8, "", "get_atr\n"},
        {Handle::Card, 0x7A007A, Buffer::None, 0, SCARD_E_UNSUPPORTED_FEATURE, 0, "", nullptr},
        {Handle::Card, 0x7A007A, Buffer::Auto, 0, SCARD_E_UNSUPPORTED_FEATURE, autoSize, "",
         "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\n"},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        run(cases[i]);
    }
    EXPECT_EQ(SCardGetAttrib(handleOf(Handle::Card), atr, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
}

TEST_F(AttributesTest, SmallCallsAnswerForAnythingAndChangeNothing)
{
    startReaders();

    EXPECT_EQ(SCardBeginTransaction(0x1234), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardEndTransaction(handleOf(Handle::Card), 99), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardCancel(0), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardCancel(testContext()), SCARD_S_SUCCESS);
    // Control codes: the feature request gets an empty list, every other
    // code pcsc-lite's answer for a feature the reader lacks; the count of
    // bytes returned is written on every way out.
    struct ControlCase {
        Handle handle;
        DWORD code;
        bool countGiven;
        LONG result;
    };
    const ControlCase controls[] = {
        {Handle::Card, CM_IOCTL_GET_FEATURE_REQUEST, true, SCARD_S_SUCCESS},
        {Handle::Card, SCARD_CTL_CODE(1), true, SCARD_E_UNSUPPORTED_FEATURE},
        {Handle::Empty, 0x42, false, SCARD_E_UNSUPPORTED_FEATURE},
        {Handle::Zero, CM_IOCTL_GET_FEATURE_REQUEST, true, SCARD_E_INVALID_HANDLE},
        {Handle::Unknown, 1, true, SCARD_E_INVALID_HANDLE},
    };
    for (const ControlCase& c : controls) {
        SCOPED_TRACE("control code " + std::to_string(c.code));
        Guarded<BYTE> out(64);
        DWORD returned = 0xCAFE;
        EXPECT_EQ(SCardControl(handleOf(c.handle), c.code, nullptr, 0, out.data(), 64, c.countGiven ? &returned : nullptr),
                  c.result);
        if (c.countGiven) {
            EXPECT_EQ(returned, 0u);
        }
        EXPECT_TRUE(out.untouched());
    }
    // Nothing can be set; a missing value and an unknown handle are told
    // apart.
    const BYTE value[4] = {};
    EXPECT_EQ(SCardSetAttrib(handleOf(Handle::Card), SCARD_ATTR_VENDOR_NAME, value, 4), SCARD_E_UNSUPPORTED_FEATURE);
    EXPECT_EQ(SCardSetAttrib(handleOf(Handle::Card), SCARD_ATTR_VENDOR_NAME, nullptr, 0), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardSetAttrib(handleOf(Handle::Unknown), SCARD_ATTR_VENDOR_NAME, value, 4), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardGetStatusChange(testContext(), INFINITE, nullptr, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(),
              "SCardBeginTransaction\nSCardEndTransaction\nSCardCancel\nSCardCancel\n"
              "SCardSetAttrib\nSCardSetAttrib SCARD_E_UNSUPPORTED_FEATURE\n"
              "SCardSetAttrib\nSCardSetAttrib SCARD_E_INVALID_PARAMETER\n"
              "SCardSetAttrib\nSCardSetAttrib SCARD_E_INVALID_HANDLE\n");
}

TEST(ProtocolControlRecords, HaveTheirPublishedValues)
{
    EXPECT_EQ(g_rgSCardT0Pci.dwProtocol, 1u);
    EXPECT_EQ(g_rgSCardT1Pci.dwProtocol, 2u);
    EXPECT_EQ(g_rgSCardRawPci.dwProtocol, 4u);
    for (const SCARD_IO_REQUEST* pci : {&g_rgSCardT0Pci, &g_rgSCardT1Pci, &g_rgSCardRawPci})
        EXPECT_EQ(pci->cbPciLength, sizeof(SCARD_IO_REQUEST));
}

}  // namespace
}  // namespace pcsc_test
