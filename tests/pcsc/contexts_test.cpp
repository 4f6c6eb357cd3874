// Contexts: SCardEstablishContext with and without racks, the rack question
// behind SCardIsValidContext, SCardReleaseContext and SCardReset. A rack
// that never finishes its bring-up is in tests/robustness (MasterFaults).
#include "pcsc_test_support.h"

#include <cstdlib>

namespace pcsc_test {
namespace {

using ContextsTest = test_support::RackFixture;

const std::vector<uint8_t> kResetFrame = {0x55, 0x00, 0x00, 0xF0, 0xBB};

TEST_F(ContextsTest, EstablishWithEnumeratedRacksAndReleaseOfAnyValue)
{
    addRack("A1", 2);
    startLibrary(1);

    for (DWORD scope : {DWORD(SCARD_SCOPE_USER), DWORD(SCARD_SCOPE_SYSTEM), DWORD(3)}) {
        clearLog();
        SCARDCONTEXT context = 0xFFFFFFFF;
        ASSERT_EQ(SCardEstablishContext(scope, nullptr, nullptr, &context), SCARD_S_SUCCESS) << scope;
        // A draw of rand modulo 0x7FFFFFFF: never negative as a signed number.
        EXPECT_GE(static_cast<int32_t>(context), 0);
        // The racks were ready: no time-out entry.
        EXPECT_EQ(logText(), "Hit Establish Context\nSCardEstablishContext " + std::to_string(context) +
                                 "\nSuccess\n");
    }

    // A scope above three: refused, with a zero context; a null pointer too.
    clearLog();
    SCARDCONTEXT context = 12345;
    EXPECT_EQ(SCardEstablishContext(4, nullptr, nullptr, &context), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(context, 0u);
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "Hit Establish Context\nInvalid value.\nHit Establish Context\n");

    // Release takes any value and changes nothing: a released context is as
    // valid as any other number.
    clearLog();
    EXPECT_EQ(SCardReleaseContext(0xFFFFFFFB), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(42), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardIsValidContext(42), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "Release Context -5\nRelease Context 42\nchecking context is valid: \nVALID CONTEXT\n");
}

// A value held by a live context is drawn again; once released it can be
// handed out anew. The generator is seeded the same way before each draw.
TEST_F(ContextsTest, NoTwoLiveContextsShareAValue)
{
    addRack("A1", 1);
    startLibrary(1);
    auto establishAfterSeed = [] {
        std::srand(7);
        SCARDCONTEXT context = 0;
        EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
        return context;
    };

    const SCARDCONTEXT first = establishAfterSeed();
    std::srand(7);
    EXPECT_EQ(static_cast<SCARDCONTEXT>(std::rand()), first) << "the first context is the first draw";
    clearLog();
    const SCARDCONTEXT second = establishAfterSeed();
    EXPECT_NE(second, first);
    EXPECT_EQ(logText(), "Hit Establish Context\nSCardEstablishContext " + std::to_string(second) + "\nSuccess\n");

    EXPECT_EQ(SCardReleaseContext(first), SCARD_S_SUCCESS);
    EXPECT_EQ(establishAfterSeed(), first);
}

TEST_F(ContextsTest, WithoutRacksEstablishWaitsOutItsLimitAndStillSucceeds)
{
    startLibrary(0);
    clearLog();

    SCARDCONTEXT context = 0xFFFFFFFF;
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    EXPECT_GE(static_cast<int32_t>(context), 0);
    // The limit is "more than 15 whole seconds"; "Time: " has no line end,
    // so "Success" runs on in the same line.
    EXPECT_NE(test_support::withEstablishSeconds(logText()).find("Time: 16Success\n"), std::string::npos) << logText();

    // No unfinished rack: the context counts as valid.
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    clearLog();
    SCardReset();
    EXPECT_EQ(logText(), "Reset racks\n");
}

TEST_F(ContextsTest, ResetSendsTheResetFrameToEveryRackAndKeepsTheirReaders)
{
    int first = addRack("A1", 2);
    int second = addRack("B2", 1);
    startLibrary(2);
    rackSimClearWireLog(first);
    rackSimClearWireLog(second);
    clearLog();

    SCardReset();

    EXPECT_EQ(wireLog(first), std::vector<std::vector<uint8_t>>{kResetFrame});
    EXPECT_EQ(wireLog(second), std::vector<std::vector<uint8_t>>{kResetFrame});
    EXPECT_EQ(logText(), "Reset racks\n"
                         "reset\nResettingRack: 55 00 00 f0 bb \nreset\nResettingRack: 55 00 00 f0 bb \n");
    // No enumeration follows: the racks stay enumerated with their readers.
    EXPECT_EQ(SCardIsValidContext(0), SCARD_S_SUCCESS);
    DWORD size = 0;
    EXPECT_EQ(SCardListReadersA(0, nullptr, nullptr, &size), SCARD_S_SUCCESS);
    EXPECT_EQ(size, 3u * 13u + 1u);
}

}  // namespace
}  // namespace pcsc_test
