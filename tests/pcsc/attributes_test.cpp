// Attributes and the small calls: the vendor name and the ATR in every
// buffer form, the ids without data, the calls without effect, and the
// exported protocol control records.
#include "pcsc_test_support.h"

#include <cstring>
#include <thread>

namespace pcsc_test {
namespace {

using namespace std::string_literals;

class AttributesTest : public test_support::RackFixture {
protected:
    void startReaders()
    {
        int device = addRack("A1", 2);
        insertCard(device, 1, atrOnlyT1());
        startLibrary(1);
        withCard_ = readerNamed("Tessel A1 R1")->handle;
        empty_ = readerNamed("Tessel A1 R2")->handle;
        clearLog();
    }

    const std::string vendor_ = "Quorvane Ltd.\0\0\0\0\0\0\0\0\0\0\0"s;  // always 24 bytes
    SCARDHANDLE withCard_ = 0, empty_ = 0;
};

TEST_F(AttributesTest, VendorNameInEveryFormForAnyHandle)
{
    startReaders();

    Guarded<BYTE> buffer(24);
    DWORD length = 24;
    EXPECT_EQ(SCardGetAttrib(0, SCARD_ATTR_VENDOR_NAME, buffer.data(), &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 24u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), 24), vendor_);
    EXPECT_TRUE(buffer.guardIntact());
    EXPECT_EQ(logText(), "get_atr\n");

    // Too small: what fits, the length needed, and nothing past the buffer.
    Guarded<BYTE> small(10);
    length = 10;
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_VENDOR_NAME, small.data(), &length), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, 24u);
    EXPECT_TRUE(small.guardIntact());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(small.data()), 10), "Quorvane L");

    // No buffer: the length alone.
    length = 0;
    EXPECT_EQ(SCardGetAttrib(0, SCARD_ATTR_VENDOR_NAME, nullptr, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 24u);

    clearLog();
    BYTE* block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardGetAttrib(0x777, SCARD_ATTR_VENDOR_NAME, reinterpret_cast<LPBYTE>(&block), &length),
              SCARD_S_SUCCESS);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(length, 24u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(block), 24), vendor_);
    EXPECT_EQ(SCardFreeMemory(0, block), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\n");
}

TEST_F(AttributesTest, AtrInEveryFormWithItsTraces)
{
    startReaders();

    Guarded<BYTE> buffer(32);
    DWORD length = 32;
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_ATR_STRING, buffer.data(), &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(buffer.contents(3), atrOnlyT1());
    EXPECT_EQ(buffer[3], 0x5A);
    // The length entry has no line end; the next entry starts with one.
    EXPECT_EQ(logText(), "get_atr\nget_atr_GetReaderAtr_else\n3\nSCARD_ATTR_ATR_STRING is 3b 80 01 \n");

    clearLog();
    length = 0;
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_ATR_STRING, nullptr, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(logText(), "get_atr\nget_atr_GetReaderAtr_pbAttr_is_null\n\n3\n");

    clearLog();
    BYTE* block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_ATR_STRING, reinterpret_cast<LPBYTE>(&block), &length),
              SCARD_S_SUCCESS);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(std::vector<uint8_t>(block, block + 3), atrOnlyT1());
    SCardFreeMemory(0, block);
    EXPECT_EQ(logText(), "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\nget_atr_GetReaderAtr_auto\n\n3\n");

    // An empty reader: length 0, result 0.
    length = 32;
    EXPECT_EQ(SCardGetAttrib(empty_, SCARD_ATTR_ATR_STRING, buffer.data(), &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 0u);
}

TEST_F(AttributesTest, AtrRefusesShortBuffersAndUnknownHandles)
{
    startReaders();

    Guarded<BYTE> small(2);
    DWORD length = 2;
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_ATR_STRING, small.data(), &length), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(small.contents(2), (std::vector<uint8_t>{0x3B, 0x80}));
    EXPECT_TRUE(small.guardIntact());

    Guarded<BYTE> buffer(32);
    length = 32;
    EXPECT_EQ(SCardGetAttrib(0x1234, SCARD_ATTR_ATR_STRING, buffer.data(), &length), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(length, 32u);
    EXPECT_TRUE(buffer.untouched());
    BYTE* block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardGetAttrib(0x1234, SCARD_ATTR_ATR_STRING, reinterpret_cast<LPBYTE>(&block), &length),
              SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_ATR_STRING, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
}

TEST_F(AttributesTest, IdsWithoutDataTouchNoOutput)
{
    startReaders();

    for (DWORD id : {DWORD(SCARD_ATTR_VENDOR_IFD_VERSION), DWORD(SCARD_ATTR_VENDOR_IFD_SERIAL_NO)}) {
        Guarded<BYTE> buffer(8);
        DWORD length = 8;
        EXPECT_EQ(SCardGetAttrib(withCard_, id, buffer.data(), &length), SCARD_S_SUCCESS) << id;
        EXPECT_EQ(length, 8u);
        EXPECT_TRUE(buffer.untouched());
    }
    Guarded<BYTE> buffer(8);
    DWORD length = 8;
    EXPECT_EQ(SCardGetAttrib(withCard_, SCARD_ATTR_VENDOR_IFD_TYPE, buffer.data(), &length), 50);
    EXPECT_EQ(length, 8u);
    EXPECT_TRUE(buffer.untouched());

    clearLog();
    BYTE* block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardGetAttrib(withCard_, 0x7A007A, reinterpret_cast<LPBYTE>(&block), &length), 50);
    EXPECT_EQ(block, nullptr) << "no block handed over";
    EXPECT_EQ(length, SCARD_AUTOALLOCATE);
    EXPECT_EQ(logText(), "get_atr\nget_atr_SCARD_AUTOALLOCATE\n\n");
}

TEST_F(AttributesTest, SmallCallsSucceedForAnythingAndChangeNothing)
{
    startReaders();

    EXPECT_EQ(SCardBeginTransaction(0x1234), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardEndTransaction(withCard_, 99), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardCancel(0), SCARD_S_SUCCESS);
    DWORD returned = 0xCAFE;
    EXPECT_EQ(SCardControl(0, 1, nullptr, 5, nullptr, 5, &returned), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardControl(withCard_, 0x42, nullptr, 0, nullptr, 0, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(returned, 0xCAFEu);
    EXPECT_EQ(logText(), "SCardBeginTransaction\nSCardEndTransaction\nSCardCancel\n");

    // SCardCancel does not end a waiting status change.
    SCARD_READERSTATEA state;
    std::memset(&state, 0, sizeof state);
    state.szReader = "Tessel A1 R2";
    state.dwCurrentState = SCARD_STATE_EMPTY;
    LONG result = 0;
    std::thread waiter([&] { result = SCardGetStatusChangeA(0, 2000, &state, 1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    SCardCancel(0);
    waiter.join();
    EXPECT_EQ(result, SCARD_E_TIMEOUT);
}

TEST(ProtocolControlRecords, HaveTheirPublishedValues)
{
    EXPECT_EQ(g_rgSCardT0Pci.dwProtocol, 1u);
    EXPECT_EQ(g_rgSCardT1Pci.dwProtocol, 2u);
    EXPECT_EQ(g_rgSCardRawPci.dwProtocol, 4u);
    for (const SCARD_IO_REQUEST* pci : {&g_rgSCardT0Pci, &g_rgSCardT1Pci, &g_rgSCardRawPci})
        EXPECT_EQ(pci->cbPciLength, 8u);
}

}  // namespace
}  // namespace pcsc_test
