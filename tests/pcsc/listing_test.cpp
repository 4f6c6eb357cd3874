// Reader listing in its buffer forms, narrow and wide, and SCardFreeMemory.
#include "pcsc_test_support.h"

#include <cstdlib>

#include "pcsc/host_buffer.h"

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

// The one reader group, by the same buffer rules; pcsc-lite ignores the
// group list of SCardListReaders, and so does the library here.
TEST_F(ListingTest, ReaderGroupsInEveryBufferFormAndGroupsIgnoredInTheListing)
{
    addRack("A1", 1);
    startLibrary(1);
    const std::string groups("SCard$DefaultReaders\0\0", 22);
    struct GroupCase {
        Form form;
        LONG result;
    };
    const GroupCase cases[] = {
        {Form::Query, SCARD_S_SUCCESS},    {Form::Exact, SCARD_S_SUCCESS},
        {Form::Short, SCARD_E_INSUFFICIENT_BUFFER}, {Form::Auto, SCARD_S_SUCCESS},
        {Form::AutoWithoutPointer, SCARD_E_INVALID_PARAMETER}, {Form::NoSize, SCARD_E_INVALID_PARAMETER},
    };
    for (const GroupCase& c : cases) {
        SCOPED_TRACE("form " + std::to_string(int(c.form)));
        Guarded<char> buffer(22);
        char* block = nullptr;
        DWORD size = c.form == Form::Short ? 21 : c.form == Form::Query ? 0xCAFE : 22;
        if (c.form == Form::Auto || c.form == Form::AutoWithoutPointer) size = SCARD_AUTOALLOCATE;
        char* target = c.form == Form::Query || c.form == Form::AutoWithoutPointer ? nullptr
                       : c.form == Form::Auto ? reinterpret_cast<char*>(&block)
                                              : buffer.data();
        EXPECT_EQ(SCardListReaderGroups(testContext(), target, c.form == Form::NoSize ? nullptr : &size), c.result);
        if (c.form != Form::NoSize) {
            EXPECT_EQ(size, 22u);
        }
        if (c.form == Form::Exact) {
            EXPECT_EQ(std::string(buffer.data(), 22), groups);
        } else {
            EXPECT_TRUE(buffer.untouched());
        }
        if (c.form == Form::Auto) {
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(std::string(block, 22), groups);
            EXPECT_EQ(SCardFreeMemory(0, block), SCARD_S_SUCCESS);
        }
    }
    DWORD size = 0;
    // pcsc-lite answers only a live context.
    EXPECT_EQ(SCardListReaderGroups(0, nullptr, &size), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardListReadersA(testContext(), "No such group\0", nullptr, &size), SCARD_S_SUCCESS);
    EXPECT_EQ(size, 14u);
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

// A name from a wide call finds its reader in every wide call, also where
// the rack's serial number has a byte past 7-bit ASCII: each byte widens to
// the character of its number, never by its sign.
TEST_F(ListingTest, WideNamesWidenEachByteByItsNumberAndFindTheirReader)
{
    const int device = addRack("C\xE9", 1);
    insertCard(device, 1, {0x3B, 0x80, 0x01});
    startLibrary(1);
    const std::wstring name = L"Tessel C\u00e9 R1";

    Guarded<WCHAR> listing(64);
    DWORD size = 64;
    ASSERT_EQ(SCardListReadersW(testContext(), nullptr, listing.data(), &size), SCARD_S_SUCCESS);
    EXPECT_EQ(std::wstring(listing.data(), size), name + L'\0' + L'\0');

    SCARD_READERSTATEW state{};
    state.szReader = listing.data();
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    EXPECT_EQ(SCardGetStatusChangeW(testContext(), 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_NE(state.dwEventState & SCARD_STATE_PRESENT, 0u);

    SCARDHANDLE handle = 0;
    DWORD active = 0;
    ASSERT_EQ(SCardConnectW(testContext(), listing.data(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active),
              SCARD_S_SUCCESS);
    Guarded<WCHAR> status(64);
    size = 64;
    EXPECT_EQ(SCardStatusW(handle, status.data(), &size, nullptr, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(std::wstring(status.data()), name);
    EXPECT_EQ(SCardDisconnect(handle, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);

    // The narrow name is the serial's own bytes; a wide name with a
    // character past one byte names no reader.
    EXPECT_EQ(SCardConnectA(testContext(), "Tessel C\xE9 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(SCardDisconnect(handle, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardConnectW(testContext(), L"Tessel C\u01e9 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle,
                            &active),
              SCARD_E_READER_UNAVAILABLE);
}

// The one implementation of the buffer rules that every call above and
// the status query, the attributes and the groups use, row by row: how the
// host offers its buffer, what a short one receives, and what comes back.
TEST(HostBufferRules, EveryFormAndEveryShortRule)
{
    enum class Offer { Query, Sized, Auto, AutoWithoutPointer };
    struct Row {
        Offer offer;
        DWORD capacity;
        ShortBuffer rule;
        LONG result;
        std::string written;  // the buffer or the block afterwards, up to its fill
    };
    const std::string data("abcd\0", 5);
    const Row rows[] = {
        {Offer::Query, 0, ShortBuffer::untouched, SCARD_S_SUCCESS, ""},
        {Offer::Sized, 5, ShortBuffer::untouched, SCARD_S_SUCCESS, data},
        {Offer::Sized, 9, ShortBuffer::untouched, SCARD_S_SUCCESS, data},
        {Offer::Sized, 3, ShortBuffer::untouched, SCARD_E_INSUFFICIENT_BUFFER, ""},
        {Offer::Sized, 3, ShortBuffer::whatFits, SCARD_E_INSUFFICIENT_BUFFER, "abc"},
        {Offer::Sized, 3, ShortBuffer::textThatFits, SCARD_E_INSUFFICIENT_BUFFER, std::string("ab\0", 3)},
        {Offer::Sized, 0, ShortBuffer::textThatFits, SCARD_E_INSUFFICIENT_BUFFER, ""},
        {Offer::Auto, 0, ShortBuffer::untouched, SCARD_S_SUCCESS, data},
        {Offer::AutoWithoutPointer, 0, ShortBuffer::untouched, SCARD_E_INVALID_PARAMETER, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("offer " + std::to_string(int(row.offer)) + ", capacity " + std::to_string(row.capacity));
        Guarded<char> buffer(row.capacity);
        char* block = nullptr;
        DWORD length = row.offer == Offer::Auto || row.offer == Offer::AutoWithoutPointer ? SCARD_AUTOALLOCATE
                                                                                          : row.capacity;
        char* target = row.offer == Offer::Sized ? buffer.data()
                       : row.offer == Offer::Auto ? reinterpret_cast<char*>(&block)
                                                  : nullptr;
        EXPECT_EQ(deliverElements(data.data(), 5, target, &length, row.rule), row.result);
        EXPECT_EQ(length, 5u) << "the size needed, on every way out";
        if (row.offer == Offer::Auto) {
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(std::string(block, 5), row.written);
            std::free(block);
            continue;
        }
        EXPECT_EQ(std::string(buffer.data(), row.written.size()), row.written);
        for (size_t i = row.written.size(); i < row.capacity + Guarded<char>::guardCount; ++i)
            ASSERT_EQ(buffer[i], 0x5A) << "written at " << i;
    }
}

}  // namespace
}  // namespace pcsc_test
