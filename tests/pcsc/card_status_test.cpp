// Card status query: every output in its three buffer forms, narrow and
// wide, the short buffers, and what each failure leaves written.
#include "pcsc_test_support.h"

namespace pcsc_test {
namespace {

using namespace std::string_literals;

class CardStatusTest : public test_support::RackFixture {
protected:
    // R1: a card with a 4-byte ATR; R2: empty; R3: a mute card.
    void startReaders()
    {
        device_ = addRack("A1", 3);
        insertCard(device_, 1, atrT0ThenT1());
        insertCard(device_, 3, atrOnlyT1());
        startLibrary(1);
        rackSimMuteCard(device_, 3);
        ASSERT_TRUE(waitUntil([] { return readerNamed("Tessel A1 R3")->cardState() == kStateMuteCard; }));
        withCard_ = readerNamed("Tessel A1 R1")->handle;
        empty_ = readerNamed("Tessel A1 R2")->handle;
        mute_ = readerNamed("Tessel A1 R3")->handle;
        clearLog();
    }

    const std::string name_ = "Tessel A1 R1";
    const DWORD nameLength_ = 13;  // the name and one NUL
    int device_ = -1;
    SCARDHANDLE withCard_ = 0, empty_ = 0, mute_ = 0;
};

TEST_F(CardStatusTest, BuffersOfExactSizeOrNoneGetEveryOutput)
{
    startReaders();

    Guarded<char> name(nameLength_);
    Guarded<BYTE> atr(4);
    DWORD nameSize = nameLength_, atrSize = 4, state = 0, protocol = 0;
    EXPECT_EQ(SCardStatusA(withCard_, name.data(), &nameSize, &state, &protocol, atr.data(), &atrSize),
              SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(name.data(), nameLength_), name_ + "\0"s);
    EXPECT_TRUE(name.guardIntact());
    EXPECT_EQ(atr.contents(4), atrT0ThenT1());
    EXPECT_TRUE(atr.guardIntact());
    EXPECT_EQ(nameSize, nameLength_);
    EXPECT_EQ(atrSize, 4u);
    EXPECT_EQ(state, kStateCard) << "this system's own state value, unchanged";
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T0) << "nobody has connected: T=0";
    EXPECT_EQ(logText(), "SCardStatusA\n");

    Guarded<WCHAR> wide(nameLength_);
    nameSize = nameLength_;
    atrSize = 4;
    EXPECT_EQ(SCardStatusW(withCard_, wide.data(), &nameSize, &state, &protocol, atr.data(), &atrSize),
              SCARD_S_SUCCESS);
    EXPECT_EQ(std::wstring(wide.data(), nameLength_), widen(name_ + "\0"s));
    EXPECT_TRUE(wide.guardIntact());
    EXPECT_EQ(nameSize, nameLength_) << "characters, not bytes";

    // After a connect with T=1 the protocol reads T=1.
    connectTo(name_, SCARD_PROTOCOL_T1);
    EXPECT_EQ(SCardStatusA(withCard_, nullptr, nullptr, nullptr, &protocol, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T1);

    // Null outputs ask for lengths or for nothing.
    nameSize = 0;
    atrSize = 0;
    EXPECT_EQ(SCardStatusA(withCard_, nullptr, &nameSize, nullptr, nullptr, nullptr, &atrSize), SCARD_S_SUCCESS);
    EXPECT_EQ(nameSize, nameLength_);
    EXPECT_EQ(atrSize, 4u);

    EXPECT_EQ(SCardStatusA(withCard_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardStatusW(withCard_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);

    // A mute card: present with the mute bit, no ATR.
    atrSize = 32;
    Guarded<BYTE> noAtr(32);
    EXPECT_EQ(SCardStatusA(mute_, nullptr, nullptr, &state, nullptr, noAtr.data(), &atrSize), SCARD_S_SUCCESS);
    EXPECT_EQ(state, kStateMuteCard);
    EXPECT_EQ(atrSize, 0u);
    EXPECT_TRUE(noAtr.untouched());
}

TEST_F(CardStatusTest, ShortBuffersGetWhatFitsAndTheRestIsStillDelivered)
{
    startReaders();

    // ATR one byte short: cut, reported whole, the call goes on.
    Guarded<char> name(nameLength_);
    Guarded<BYTE> atr(3);
    DWORD nameSize = nameLength_, atrSize = 3, state = 0, protocol = 0;
    EXPECT_EQ(SCardStatusA(withCard_, name.data(), &nameSize, &state, &protocol, atr.data(), &atrSize),
              SCARD_E_INSUFFICIENT_BUFFER);
    const std::vector<uint8_t> whole = atrT0ThenT1();
    EXPECT_EQ(atr.contents(3), std::vector<uint8_t>(whole.begin(), whole.begin() + 3));
    EXPECT_TRUE(atr.guardIntact());
    EXPECT_EQ(atrSize, 4u);
    EXPECT_EQ(std::string(name.data(), nameLength_), name_ + "\0"s);
    EXPECT_EQ(state, kStateCard);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T0);

    // Name without room for its NUL: nothing is written past the buffer,
    // and the ATR still comes.
    for (DWORD size : {DWORD(12), DWORD(5), DWORD(0)}) {
        Guarded<char> shortName(size);
        Guarded<BYTE> wholeAtr(32);
        nameSize = size;
        atrSize = 32;
        state = 0;
        EXPECT_EQ(SCardStatusA(withCard_, shortName.data(), &nameSize, &state, &protocol, wholeAtr.data(), &atrSize),
                  SCARD_E_INSUFFICIENT_BUFFER)
            << size;
        EXPECT_TRUE(shortName.guardIntact()) << size;
        EXPECT_EQ(nameSize, nameLength_);
        EXPECT_EQ(wholeAtr.contents(4), atrT0ThenT1());
        EXPECT_EQ(atrSize, 4u);
        EXPECT_EQ(state, kStateCard);
    }

    Guarded<WCHAR> shortWide(6);
    nameSize = 6;
    EXPECT_EQ(SCardStatusW(withCard_, shortWide.data(), &nameSize, nullptr, nullptr, nullptr, nullptr),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(shortWide.guardIntact());
    EXPECT_EQ(nameSize, nameLength_);
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
