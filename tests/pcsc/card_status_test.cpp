// Card status query: every output in its three buffer forms, narrow and
// wide, the short buffers, and what each failure leaves written.
#include "pcsc_test_support.h"

namespace pcsc_test {
namespace {

using namespace std::string_literals;

class CardStatusTest : public OneRackTest {
protected:
    // R1: a card with a 4-byte ATR; R2: empty; R3: a mute card.
    void startReaders()
    {
        startRack({atrT0ThenT1(), {}, atrOnlyT1()}, 3);
        withCard_ = readerNamed("Tessel A1 R1")->handle;
        empty_ = readerNamed("Tessel A1 R2")->handle;
        mute_ = readerNamed("Tessel A1 R3")->handle;
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
        EXPECT_EQ(state, kStateCard) << "this system's own state value, unchanged";
        EXPECT_EQ(protocol, SCARD_PROTOCOL_T0) << "nobody has connected: T=0";
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

    // After a connect with T=1 the protocol reads T=1.
    connectTo(name_, SCARD_PROTOCOL_T1);
    EXPECT_EQ(SCardStatusA(withCard_, nullptr, nullptr, nullptr, &protocol, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T1);

    // A mute card: present with the mute bit, no ATR.
    atrSize = 32;
    Guarded<BYTE> noAtr(32);
    EXPECT_EQ(SCardStatusA(mute_, nullptr, nullptr, &state, nullptr, noAtr.data(), &atrSize), SCARD_S_SUCCESS);
    EXPECT_EQ(state, kStateMuteCard);
    EXPECT_EQ(atrSize, 0u);
    EXPECT_TRUE(noAtr.untouched());
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
    EXPECT_EQ(state, kStateNoCard);
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
