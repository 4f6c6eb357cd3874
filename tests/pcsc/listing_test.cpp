// Reader listing in its buffer forms, narrow and wide, and SCardFreeMemory.
#include "pcsc_test_support.h"

namespace pcsc_test {
namespace {

using namespace std::string_literals;

const std::string kNames = "Tessel B7 R1\0Tessel A1 R1\0Tessel A1 R2\0\0"s;
const DWORD kSize = 40;  // three names of 12 characters with their NULs, and one NUL

LONG listReaders(char* buffer, DWORD* size) { return SCardListReadersA(testContext(), nullptr, buffer, size); }
LONG listReaders(WCHAR* buffer, DWORD* size) { return SCardListReadersW(testContext(), nullptr, buffer, size); }
std::basic_string<char> expectedNames(char) { return kNames; }
std::basic_string<WCHAR> expectedNames(WCHAR) { return widen(kNames); }

// How the host hands over its buffer: none (a size query), one of the exact
// size, one a character short, SCARD_AUTOALLOCATE with a pointer to receive
// the block or without one, and no size pointer at all.
enum class Form { Query, Exact, Short, Auto, AutoWithoutPointer, NoSize };

struct ListingCase {
    bool wide;
    Form form;
    LONG result;
    const char* trace;
};

class ListingTest : public test_support::RackFixture {
protected:
    // Runs one case and checks what it hands back beside the trace.
    template <typename Char>
    void run(const ListingCase& c)
    {
        Guarded<Char> buffer(c.form == Form::Short ? kSize - 1 : kSize);
        Char* block = nullptr;
        DWORD size = c.form == Form::Short ? kSize - 1 : c.form == Form::Query ? 7 : kSize;
        if (c.form == Form::Auto || c.form == Form::AutoWithoutPointer) size = SCARD_AUTOALLOCATE;
        Char* target = c.form == Form::Query || c.form == Form::AutoWithoutPointer ? nullptr
                       : c.form == Form::Auto ? reinterpret_cast<Char*>(&block)
                                              : buffer.data();
        EXPECT_EQ(listReaders(target, c.form == Form::NoSize ? nullptr : &size), c.result);
        if (c.form != Form::NoSize) {
            EXPECT_EQ(size, kSize) << "characters, not bytes; the size the host needs";
        }
        if (c.form == Form::Exact) {
            EXPECT_EQ(std::basic_string<Char>(buffer.data(), kSize), expectedNames(Char()));
        } else {
            EXPECT_TRUE(buffer.untouched());
        }
        EXPECT_TRUE(buffer.guardIntact());
        if (c.form == Form::Auto) {
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(std::basic_string<Char>(block, size), expectedNames(Char()));
            EXPECT_EQ(SCardFreeMemory(0, block), SCARD_S_SUCCESS);
        }
    }
};

TEST_F(ListingTest, EveryBufferFormInBothWidths)
{
    addRack("B7", 1);  // discovery order B7, then A1
    addRack("A1", 2);
    startLibrary(2);
    testContext();

    const ListingCase cases[] = {
        {false, Form::Query, SCARD_S_SUCCESS, "SCardListReadersA\nascii len is 40\nreached end of listreaders 40\n"},
        {true, Form::Query, SCARD_S_SUCCESS,
         "SCardListReadersW\nwide len is 40\nNo buffer provided\nreached end of Wlistreaders 40\n"},
        {false, Form::Exact, SCARD_S_SUCCESS, "SCardListReadersA\nascii len is 40\nreached end of listreaders 40\n"},
        {true, Form::Exact, SCARD_S_SUCCESS, "SCardListReadersW\nwide len is 40\nreached end of Wlistreaders 40\n"},
        {false, Form::Short, SCARD_E_INSUFFICIENT_BUFFER,
         "SCardListReadersA\nascii len is 40\nreached end of listreaders 40\n"},
        {true, Form::Short, SCARD_E_INSUFFICIENT_BUFFER,
         "SCardListReadersW\nwide len is 40\nSCARD_E_INSUFFICIENT_BUFFER\nreached end of Wlistreaders 40\n"},
        {false, Form::Auto, SCARD_S_SUCCESS,
         "SCardListReadersA\nascii len is 40\nSCARD_AUTOALLOCATE\nreached end of listreaders 40\n"},
        {true, Form::Auto, SCARD_S_SUCCESS,
         "SCardListReadersW\nwide len is 40\nSCARD_AUTOALLOCATE\nmalloc complete\nreached end of Wlistreaders 40\n"},
        // The narrow form's trace of this case has no line end.
        {false, Form::AutoWithoutPointer, SCARD_E_INVALID_PARAMETER,
         "SCardListReadersA\nascii len is 40\nSCARD_AUTOALLOCATE\nSCardListReadersAreached end of listreaders 40\n"},
        {true, Form::AutoWithoutPointer, SCARD_E_INVALID_PARAMETER,
         "SCardListReadersW\nwide len is 40\nSCARD_AUTOALLOCATE\nreached end of Wlistreaders 40\n"},
        {false, Form::NoSize, SCARD_E_INVALID_PARAMETER, "SCardListReadersA\n"},
        {true, Form::NoSize, SCARD_E_INVALID_PARAMETER, "SCardListReadersW\nSCARD_E_INVALID_PARAMETER\n"},
    };
    for (const ListingCase& c : cases) {
        SCOPED_TRACE(std::string(c.wide ? "wide, form " : "narrow, form ") + std::to_string(int(c.form)));
        clearLog();
        if (c.wide)
            run<WCHAR>(c);
        else
            run<char>(c);
        EXPECT_EQ(logText(), c.trace);
    }
    EXPECT_EQ(SCardFreeMemory(0, nullptr), SCARD_S_SUCCESS);
    // A context never handed out lists nothing.
    DWORD size = 0;
    EXPECT_EQ(SCardListReadersA(424242, nullptr, nullptr, &size), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardListReadersW(424242, nullptr, nullptr, &size), SCARD_E_INVALID_HANDLE);
}

TEST_F(ListingTest, WithoutReadersEveryFormAnswersNoReadersWithSizeOne)
{
    startLibrary(0);
    const SCARDCONTEXT context = testContext();
    clearLog();

    char* block = reinterpret_cast<char*>(0x1);
    DWORD size = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&block), &size), SCARD_E_NO_READERS_AVAILABLE);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(block, reinterpret_cast<char*>(0x1)) << "no block handed over";
    EXPECT_EQ(logText(), "SCardListReadersA\nascii len is 1\nreached end of listreaders 1\n");

    clearLog();
    Guarded<WCHAR> buffer(64);
    size = 64;
    EXPECT_EQ(SCardListReadersW(context, nullptr, buffer.data(), &size), SCARD_E_NO_READERS_AVAILABLE);
    EXPECT_EQ(size, 1u);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_EQ(logText(), "SCardListReadersW\nwide len is 1\nSCARD_E_NO_READERS_AVAILABLE\nreached end of Wlistreaders 1\n");
}

}  // namespace
}  // namespace pcsc_test
