// Card status query: every output in its three buffer forms, narrow and
// wide, the short buffers, and what each failure leaves written.
#include "pcsc_test_support.h"

namespace pcsc_test {
namespace {

using namespace std::string_literals;

class CardStatusTest : public OneRackTest {
protected:
    // R1: a card with a 4-byte ATR, connected (T=0, its ATR's first);
    // R2: empty; R3: a mute card; direct connections to both.
    void startReaders()
    {
        startRack({atrT0ThenT1(), {}, atrOnlyT1()}, 3);
        withCard_ = connectTo(name_);
        empty_ = connectDirect("Tessel A1 R2");
        mute_ = connectDirect("Tessel A1 R3");
        settle();
        clearLog();
    }

    const std::string name_ = "Tessel A1 R1";
    const DWORD nameLength_ = 13;  // the name and one NUL
    SCARDHANDLE withCard_ = 0, empty_ = 0, mute_ = 0;
};

// Name and ATR buffers of a given room, narrow or wide: a short buffer gets
// what fits (a name without room for its NUL gets nothing past its end),
// the full lengths are reported and every other output is still delivered.
TEST_F(CardStatusTest, EachBufferGetsWhatFitsAndEveryOtherOutputStillComes)
{
    startReaders();
    struct Case {
        bool wide;
        DWORD nameRoom, atrRoom;
        LONG result;
        const char* trace;  // checked when given
    };
    const Case cases[] = {
        {false, 13, 4, SCARD_S_SUCCESS, "SCardStatusA\n"},
        {true, 13, 4, SCARD_S_SUCCESS, nullptr},
        {false, 13, 3, SCARD_E_INSUFFICIENT_BUFFER, nullptr},
        {false, 12, 32, SCARD_E_INSUFFICIENT_BUFFER, nullptr},
        {false, 5, 32, SCARD_E_INSUFFICIENT_BUFFER, nullptr},
        {false, 0, 32, SCARD_E_INSUFFICIENT_BUFFER, nullptr},
        {true, 6, 32, SCARD_E_INSUFFICIENT_BUFFER, nullptr},
    };
    const std::vector<uint8_t> whole = atrT0ThenT1();
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << (c.wide ? "W " : "A ") << c.nameRoom << "/" << c.atrRoom);
        clearLog();
        Guarded<char> narrow(c.nameRoom);
        Guarded<WCHAR> wide(c.nameRoom);
        Guarded<BYTE> atr(c.atrRoom);
        DWORD nameSize = c.nameRoom, atrSize = c.atrRoom, state = 0, protocol = 0;
        const LONG result =
            c.wide ? SCardStatusW(withCard_, wide.data(), &nameSize, &state, &protocol, atr.data(), &atrSize)
                   : SCardStatusA(withCard_, narrow.data(), &nameSize, &state, &protocol, atr.data(), &atrSize);
        EXPECT_EQ(result, c.result);
        EXPECT_TRUE(narrow.guardIntact());
        EXPECT_TRUE(wide.guardIntact());
        EXPECT_EQ(nameSize, nameLength_) << "characters, not bytes";
        if (c.nameRoom >= nameLength_) {
            EXPECT_EQ(c.wide ? std::wstring(wide.data(), nameLength_) : widen(std::string(narrow.data(), nameLength_)),
                      widen(name_ + "\0"s));
        }
        const size_t atrCopied = std::min<size_t>(c.atrRoom, whole.size());
        EXPECT_EQ(atr.contents(atrCopied), std::vector<uint8_t>(whole.begin(), whole.begin() + atrCopied));
        EXPECT_TRUE(atr.guardIntact());
        EXPECT_EQ(atrSize, 4u);
        EXPECT_NE(state, 0u);
        EXPECT_EQ(protocol, SCARD_PROTOCOL_T0) << "the connection's protocol";
        if (c.trace != nullptr) {
            EXPECT_EQ(logText(), c.trace);
        }
    }
}

TEST_F(CardStatusTest, NullOutputsAskForLengthsOrNothingAndTheStateFollowsTheCard)
{
    startReaders();
    DWORD nameSize = 0, atrSize = 0, state = 0, protocol = 0;
    EXPECT_EQ(SCardStatusA(withCard_, nullptr, &nameSize, nullptr, nullptr, nullptr, &atrSize), SCARD_S_SUCCESS);
    EXPECT_EQ(nameSize, nameLength_);
    EXPECT_EQ(atrSize, 4u);
    EXPECT_EQ(SCardStatusA(withCard_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardStatusW(withCard_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);

    // The protocol is the connection's: T=0, the ATR's first. A second
    // connect that allows only T=1 cannot join a card running T=0.
    EXPECT_EQ(SCardStatusA(withCard_, nullptr, nullptr, nullptr, &protocol, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T0);
    SCARDHANDLE second = 0;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(testContext(), name_.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &second, &active),
              SCARD_E_PROTO_MISMATCH);

    // A mute card: no ATR.
    atrSize = 32;
    Guarded<BYTE> noAtr(32);
    EXPECT_EQ(SCardStatusA(mute_, nullptr, nullptr, &state, nullptr, noAtr.data(), &atrSize), SCARD_S_SUCCESS);
    EXPECT_EQ(atrSize, 0u);
    EXPECT_TRUE(noAtr.untouched());
}

// The reader state in the platform's values, never the slot's own numbers.
TEST_F(CardStatusTest, StatesComeInThePlatformsValues)
{
    startReaders();
#ifdef _WIN32
    const DWORD specific = SCARD_SPECIFIC, absent = SCARD_ABSENT, mute = SCARD_SWALLOWED, present = SCARD_PRESENT;
#else
    const DWORD specific = SCARD_PRESENT | SCARD_POWERED | SCARD_SPECIFIC, absent = SCARD_ABSENT,
                mute = SCARD_PRESENT | SCARD_SWALLOWED, present = SCARD_PRESENT;
#endif
    const struct {
        const char* what;
        SCARDHANDLE handle;
        DWORD state, protocol;
    } rows[] = {
        {"connected card", withCard_, specific, SCARD_PROTOCOL_T0},
        {"empty slot", empty_, absent, 0},
        {"mute card", mute_, mute, 0},
    };
    for (const auto& row : rows) {
        DWORD state = 0xAA, protocol = 0xBB;
        EXPECT_EQ(SCardStatusA(row.handle, nullptr, nullptr, &state, &protocol, nullptr, nullptr), SCARD_S_SUCCESS)
            << row.what;
        EXPECT_EQ(state, row.state) << row.what;
        EXPECT_EQ(protocol, row.protocol) << row.what;
    }
    // Once the only card connection is gone with a reset, the card counts
    // as unpowered: a direct connection sees it present.
    SCARDHANDLE direct = connectDirect(name_);
    EXPECT_EQ(SCardDisconnect(withCard_, SCARD_RESET_CARD), SCARD_S_SUCCESS);
    DWORD state = 0;
    EXPECT_EQ(SCardStatusA(direct, nullptr, nullptr, &state, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(state, present);
}

TEST_F(CardStatusTest, AutoAllocateHandsOverBlocksThatFreeMemoryTakesBack)
{
    startReaders();

    char* name = nullptr;
    BYTE* atr = nullptr;
    DWORD nameSize = SCARD_AUTOALLOCATE, atrSize = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardStatusA(withCard_, reinterpret_cast<LPSTR>(&name), &nameSize, nullptr, nullptr,
                           reinterpret_cast<LPBYTE>(&atr), &atrSize),
              SCARD_S_SUCCESS);
    ASSERT_NE(name, nullptr);
    ASSERT_NE(atr, nullptr);
    EXPECT_EQ(nameSize, nameLength_);
    EXPECT_EQ(std::string(name, nameSize), name_ + "\0"s);
    EXPECT_EQ(atrSize, 4u);
    EXPECT_EQ(std::vector<uint8_t>(atr, atr + 4), atrT0ThenT1());
    EXPECT_EQ(SCardFreeMemory(0, name), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardFreeMemory(0, atr), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "SCardStatusA\n");

    // Wide, on an empty reader: an empty ATR still comes as a block.
    clearLog();
    WCHAR* wide = nullptr;
    atr = nullptr;
    nameSize = SCARD_AUTOALLOCATE;
    atrSize = SCARD_AUTOALLOCATE;
    DWORD state = 0;
    EXPECT_EQ(SCardStatusW(empty_, reinterpret_cast<LPWSTR>(&wide), &nameSize, &state, nullptr,
                           reinterpret_cast<LPBYTE>(&atr), &atrSize),
              SCARD_S_SUCCESS);
    ASSERT_NE(wide, nullptr);
    EXPECT_NE(atr, nullptr);
    EXPECT_EQ(std::wstring(wide, nameSize), L"Tessel A1 R2"s + L'\0');
    EXPECT_EQ(atrSize, 0u);
    EXPECT_EQ(state, static_cast<DWORD>(SCARD_ABSENT));
    SCardFreeMemory(0, wide);
    SCardFreeMemory(0, atr);
    EXPECT_EQ(logText(), "SCardStatusW\nSCARD_AUTOALLOCATE\n") << "the ATR steps trace nothing";
}

TEST_F(CardStatusTest, FailuresLeaveWhatTheyHaveNotReached)
{
    startReaders();

    // A handle of no reader: nothing written.
    DWORD nameSize = 50, atrSize = 50, state = 0xAA, protocol = 0xBB;
    Guarded<char> name(50);
    EXPECT_EQ(SCardStatusA(0x1234, name.data(), &nameSize, &state, &protocol, nullptr, &atrSize),
              SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(nameSize, 50u);
    EXPECT_EQ(atrSize, 50u);
    EXPECT_EQ(state, 0xAAu);
    EXPECT_EQ(protocol, 0xBBu);
    EXPECT_TRUE(name.untouched());
    EXPECT_EQ(SCardStatusW(0x1234, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(logText(), "SCardStatusA\nSCardStatusW\nInvalidHandle\n");

    // Auto-allocation of the name without a pointer: lengths only.
    clearLog();
    nameSize = SCARD_AUTOALLOCATE;
    atrSize = 32;
    EXPECT_EQ(SCardStatusW(withCard_, nullptr, &nameSize, &state, &protocol, nullptr, &atrSize),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(nameSize, nameLength_);
    EXPECT_EQ(atrSize, 4u);
    EXPECT_EQ(state, 0xAAu);
    EXPECT_EQ(logText(), "SCardStatusW\nSCARD_AUTOALLOCATE\nSCARD_E_INVALID_PARAMETER\n");

    // Auto-allocation of the ATR without a pointer: the name is delivered,
    // state and protocol are not.
    Guarded<char> fullName(nameLength_);
    nameSize = nameLength_;
    atrSize = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardStatusA(withCard_, fullName.data(), &nameSize, &state, &protocol, nullptr, &atrSize),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(std::string(fullName.data(), nameLength_), name_ + "\0"s);
    EXPECT_EQ(atrSize, 4u);
    EXPECT_EQ(state, 0xAAu);
    EXPECT_EQ(protocol, 0xBBu);
}

}  // namespace
}  // namespace pcsc_test
