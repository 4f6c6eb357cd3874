// Attributes and the small calls: the vendor name and the ATR in every
// buffer form, the ids without data, the calls without effect, and the
// exported protocol control records.
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

TEST_F(AttributesTest, VendorNameAtrAndIdsWithoutDataInEveryBufferForm)
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
        // Ids without data: success or 50, nothing written.
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_VERSION, Buffer::Sized, 8, SCARD_S_SUCCESS, 8, "", nullptr},
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_SERIAL_NO, Buffer::Sized, 8, SCARD_S_SUCCESS, 8, "", nullptr},
        {Handle::Card, SCARD_ATTR_VENDOR_IFD_TYPE, Buffer::Sized, 8, 50, 8, "", nullptr},
        {Handle::Card, 0x7A007A, Buffer::Auto, 0, 50, autoSize, "", "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\n"},
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
    // The slots have no control codes; pcsc-lite's answer for that.
    DWORD returned = 0xCAFE;
    EXPECT_EQ(SCardControl(0, 1, nullptr, 5, nullptr, 5, &returned), SCARD_E_UNSUPPORTED_FEATURE);
    EXPECT_EQ(SCardControl(handleOf(Handle::Card), 0x42, nullptr, 0, nullptr, 0, nullptr),
              SCARD_E_UNSUPPORTED_FEATURE);
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(SCardSetAttrib(handleOf(Handle::Card), SCARD_ATTR_VENDOR_NAME, nullptr, 0), SCARD_E_UNSUPPORTED_FEATURE);
    EXPECT_EQ(SCardGetStatusChange(testContext(), INFINITE, nullptr, 0), SCARD_S_SUCCESS);
    char groups[32] = {};
    DWORD groupsLength = sizeof groups;
    EXPECT_EQ(SCardListReaderGroups(0, groups, &groupsLength), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(groups, groupsLength), std::string("SCard$DefaultReaders\0\0", 22));
    EXPECT_EQ(logText(), "SCardBeginTransaction\nSCardEndTransaction\nSCardCancel\nSCardCancel\n");
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
