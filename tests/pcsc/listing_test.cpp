// Reader listing in its three forms, narrow and wide, and SCardFreeMemory.
#include "pcsc_test_support.h"

namespace pcsc_test {
namespace {

using namespace std::string_literals;

class ListingTest : public test_support::RackFixture {
protected:
    // Two racks, in discovery order B7 (one slot) and A1 (two slots).
    void startTwoRacks()
    {
        addRack("B7", 1);
        addRack("A1", 2);
        startLibrary(2);
        clearLog();
    }

    const std::string expected = "Tessel B7 R1\0Tessel A1 R1\0Tessel A1 R2\0\0"s;
    const DWORD expectedSize = 40;  // three names of 12 characters with their NULs, and one NUL
};

TEST_F(ListingTest, SizeQueryCountsCharactersInBothForms)
{
    startTwoRacks();

    DWORD narrow = 7;
    EXPECT_EQ(SCardListReadersA(0, nullptr, nullptr, &narrow), SCARD_S_SUCCESS);
    EXPECT_EQ(narrow, expectedSize);
    EXPECT_EQ(logText(), "SCardListReadersA\nascii len is 40\nreached end of listreaders 40\n");

    clearLog();
    DWORD wide = 7;
    EXPECT_EQ(SCardListReadersW(0, nullptr, nullptr, &wide), SCARD_S_SUCCESS);
    EXPECT_EQ(wide, expectedSize) << "characters, not bytes";
    EXPECT_EQ(logText(), "SCardListReadersW\nwide len is 40\nNo buffer provided\nreached end of Wlistreaders 40\n");
}

TEST_F(ListingTest, CallersBufferOfExactSizeIsFilledAndOneLessIsLeftAlone)
{
    startTwoRacks();

    Guarded<char> exact(expectedSize);
    DWORD size = expectedSize;
    EXPECT_EQ(SCardListReadersA(0, nullptr, exact.data(), &size), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(exact.data(), expectedSize), expected);
    EXPECT_TRUE(exact.guardIntact());
    EXPECT_EQ(size, expectedSize);

    Guarded<char> small(expectedSize - 1);
    size = expectedSize - 1;
    EXPECT_EQ(SCardListReadersA(0, nullptr, small.data(), &size), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(small.untouched());
    EXPECT_EQ(size, expectedSize) << "the size the host needs";

    Guarded<WCHAR> wideExact(expectedSize);
    size = expectedSize;
    EXPECT_EQ(SCardListReadersW(0, nullptr, wideExact.data(), &size), SCARD_S_SUCCESS);
    EXPECT_EQ(std::wstring(wideExact.data(), expectedSize), widen(expected));
    EXPECT_TRUE(wideExact.guardIntact());

    clearLog();
    Guarded<WCHAR> wideSmall(expectedSize - 1);
    size = expectedSize - 1;
    EXPECT_EQ(SCardListReadersW(0, nullptr, wideSmall.data(), &size), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(wideSmall.untouched());
    EXPECT_EQ(size, expectedSize);
    EXPECT_EQ(logText(),
              "SCardListReadersW\nwide len is 40\nSCARD_E_INSUFFICIENT_BUFFER\nreached end of Wlistreaders 40\n");
}

TEST_F(ListingTest, AutoAllocateHandsOverABlockThatFreeMemoryTakesBack)
{
    startTwoRacks();

    char* narrow = nullptr;
    DWORD size = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersA(0, nullptr, reinterpret_cast<LPSTR>(&narrow), &size), SCARD_S_SUCCESS);
    ASSERT_NE(narrow, nullptr);
    EXPECT_EQ(size, expectedSize);
    EXPECT_EQ(std::string(narrow, size), expected);
    EXPECT_EQ(SCardFreeMemory(0, narrow), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "SCardListReadersA\nascii len is 40\nSCARD_AUTOALLOCATE\nreached end of listreaders 40\n");

    clearLog();
    WCHAR* wide = nullptr;
    size = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersW(0, nullptr, reinterpret_cast<LPWSTR>(&wide), &size), SCARD_S_SUCCESS);
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(size, expectedSize);
    EXPECT_EQ(std::wstring(wide, size), widen(expected));
    EXPECT_EQ(SCardFreeMemory(0, wide), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "SCardListReadersW\nwide len is 40\nSCARD_AUTOALLOCATE\nmalloc complete\n"
                         "reached end of Wlistreaders 40\n");

    EXPECT_EQ(SCardFreeMemory(0, nullptr), SCARD_S_SUCCESS);
}

TEST_F(ListingTest, AutoAllocateWithoutAPointerIsRefusedButReportsTheSize)
{
    startTwoRacks();

    DWORD size = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersA(0, nullptr, nullptr, &size), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(size, expectedSize);
    // The narrow form's trace of this case has no line end.
    EXPECT_EQ(logText(), "SCardListReadersA\nascii len is 40\nSCARD_AUTOALLOCATE\n"
                         "SCardListReadersAreached end of listreaders 40\n");

    clearLog();
    size = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersW(0, nullptr, nullptr, &size), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(size, expectedSize);
    EXPECT_EQ(logText(), "SCardListReadersW\nwide len is 40\nSCARD_AUTOALLOCATE\nreached end of Wlistreaders 40\n");
}

TEST_F(ListingTest, NullSizePointerIsRefusedAtOnce)
{
    startTwoRacks();

    char buffer[8] = {};
    EXPECT_EQ(SCardListReadersA(0, nullptr, buffer, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "SCardListReadersA\n");
    clearLog();
    EXPECT_EQ(SCardListReadersW(0, nullptr, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "SCardListReadersW\nSCARD_E_INVALID_PARAMETER\n");
}

TEST_F(ListingTest, WithoutReadersEveryFormAnswersNoReadersWithSizeOne)
{
    startLibrary(0);
    clearLog();

    char* block = reinterpret_cast<char*>(0x1);
    DWORD size = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersA(0, nullptr, reinterpret_cast<LPSTR>(&block), &size), SCARD_E_NO_READERS_AVAILABLE);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(block, reinterpret_cast<char*>(0x1)) << "no block handed over";
    EXPECT_EQ(logText(), "SCardListReadersA\nascii len is 1\nreached end of listreaders 1\n");

    clearLog();
    Guarded<WCHAR> buffer(64);
    size = 64;
    EXPECT_EQ(SCardListReadersW(0, nullptr, buffer.data(), &size), SCARD_E_NO_READERS_AVAILABLE);
    EXPECT_EQ(size, 1u);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(logText(), "SCardListReadersW\nwide len is 1\nSCARD_E_NO_READERS_AVAILABLE\nreached end of Wlistreaders 1\n");
}

}  // namespace
}  // namespace pcsc_test
