// Contexts: SCardEstablishContext with and without racks, live contexts
// and SCardIsValidContext, SCardReleaseContext and SCardReset. A rack
// that never finishes its bring-up is in tests/robustness (MasterFaults).
#include "pcsc_test_support.h"

#include <cstdlib>
#include <set>

namespace pcsc_test {
namespace {

using ContextsTest = test_support::RackFixture;

const std::vector<uint8_t> kResetFrame = {0x55, 0x00, 0x00, 0xF0, 0xBB};

TEST_F(ContextsTest, EstablishWithEnumeratedRacksAndReleaseOfLiveContextsOnly)
{
    addRack("A1", 2);
    startLibrary(1);

    std::vector<SCARDCONTEXT> contexts;
    for (DWORD scope : {DWORD(SCARD_SCOPE_USER), DWORD(SCARD_SCOPE_SYSTEM), DWORD(3)}) {
        clearLog();
        SCARDCONTEXT context = 0xFFFFFFFF;
        ASSERT_EQ(SCardEstablishContext(scope, nullptr, nullptr, &context), SCARD_S_SUCCESS) << scope;
        // 31 bits, never 0: positive as a signed number in every client.
        EXPECT_GT(static_cast<int32_t>(context), 0);
        // The racks were ready: no time-out entry.
        EXPECT_EQ(logText(), "Hit Establish Context\nSCardEstablishContext " + std::to_string(context) +
                                 "\nSuccess\n");
        contexts.push_back(context);
    }

    // A scope above three: refused, with a zero context; a null pointer too.
    clearLog();
    SCARDCONTEXT context = 12345;
    EXPECT_EQ(SCardEstablishContext(4, nullptr, nullptr, &context), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(context, 0u);
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "Hit Establish Context\nInvalid value.\nHit Establish Context\n");

    // Only a live context is valid and can be released, once.
    clearLog();
    EXPECT_EQ(SCardIsValidContext(contexts[0]), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(contexts[0]), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardIsValidContext(contexts[0]), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardReleaseContext(contexts[0]), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardReleaseContext(42), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardIsValidContext(contexts[1]), SCARD_S_SUCCESS);
    const std::string first = std::to_string(contexts[0]);
    const std::string second = std::to_string(contexts[1]);
    EXPECT_EQ(logText(), "checking context is valid: \nVALID CONTEXT\nRelease Context " + first +
                             "\nchecking context is valid: \nINVALID CONTEXT\nRelease Context " + first +
                             "\nRelease Context 42\nchecking context is valid: \nVALID CONTEXT\n");
    SCardReleaseContext(contexts[1]);
    SCardReleaseContext(contexts[2]);
}

// Contexts come from the system's random source: the C library's generator
// seeded alike before each establish changes nothing, no two live contexts
// are equal, and none is 0.
TEST_F(ContextsTest, ContextsAreUnpredictableAndUnique)
{
    addRack("A1", 1);
    startLibrary(1);
    std::set<SCARDCONTEXT> seen;
    for (int i = 0; i < 200; ++i) {
        std::srand(7);
        SCARDCONTEXT context = 0;
        ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
        EXPECT_NE(context, 0);
        seen.insert(context);
    }
    EXPECT_EQ(seen.size(), 200u);
    std::srand(7);
    EXPECT_EQ(seen.count(static_cast<SCARDCONTEXT>(std::rand())), 0u);
    for (SCARDCONTEXT context : seen) EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
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

    // The context is live all the same.
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
    const SCARDCONTEXT context = testContext();
    rackSimClearWireLog(first);
    rackSimClearWireLog(second);
    clearLog();

    SCardReset();

    EXPECT_EQ(wireLog(first), std::vector<std::vector<uint8_t>>{kResetFrame});
    EXPECT_EQ(wireLog(second), std::vector<std::vector<uint8_t>>{kResetFrame});
    EXPECT_EQ(logText(), "Reset racks\n"
                         "reset\nResettingRack: 55 00 00 f0 bb \nreset\nResettingRack: 55 00 00 f0 bb \n");
    // No enumeration follows: the racks stay enumerated with their readers.
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    DWORD size = 0;
    EXPECT_EQ(SCardListReadersA(context, nullptr, nullptr, &size), SCARD_S_SUCCESS);
    EXPECT_EQ(size, 3u * 13u + 1u);
}

}  // namespace
}  // namespace pcsc_test
