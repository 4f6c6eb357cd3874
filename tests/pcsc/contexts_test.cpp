// Contexts: the wait for the racks behind SCardEstablishContext, the rack
// question behind SCardIsValidContext, and SCardReset.
#include "pcsc_test_support.h"

#include <cstring>

namespace pcsc_test {
namespace {

using namespace std::string_literals;

using ContextsTest = test_support::RackFixture;

const std::vector<uint8_t> kResetFrame = {0x55, 0x00, 0x00, 0xF0, 0xBB};

TEST_F(ContextsTest, EstablishWithEnumeratedRacksGivesASmallContextWithoutWaiting)
{
    addRack("A1", 2);
    startLibrary(1);
    clearLog();

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
}

TEST_F(ContextsTest, ScopeAboveThreeIsRejectedWithAZeroContext)
{
    addRack("A1", 1);
    startLibrary(1);
    clearLog();

    SCARDCONTEXT context = 12345;
    EXPECT_EQ(SCardEstablishContext(4, nullptr, nullptr, &context), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(context, 0u);
    EXPECT_EQ(logText(), "Hit Establish Context\nInvalid value.\n");

    clearLog();
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "Hit Establish Context\n");
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
    std::string text = logText();
    EXPECT_NE(text.find("Time: 16Success\n"), std::string::npos) << text;

    // No unfinished rack: the context counts as valid. No reader to list.
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    DWORD size = 0;
    EXPECT_EQ(SCardListReadersA(context, nullptr, nullptr, &size), SCARD_E_NO_READERS_AVAILABLE);
    EXPECT_EQ(size, 1u);

    clearLog();
    SCardReset();
    EXPECT_EQ(logText(), "Reset racks\n");
}

TEST_F(ContextsTest, ARackThatNeverFinishesEnumerationLeavesContextsInvalid)
{
    int device = addRack("A1", 2);
    rackSimSetDeviceFault(device, RACKSIM_MASTER_SILENT_COLLECTED, 1);
    KickOff();
    waitForDiscoveryThreads();
    ASSERT_EQ(g_racks.size(), 1u);
    // The readers are made before the closing exchange that never ends.
    ASSERT_TRUE(waitUntil([] { return g_racks[0]->readers.size() == 2; }));

    SCARDCONTEXT context = 0;
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    EXPECT_NE(logText().find("Time: 16Success\n"), std::string::npos);

    clearLog();
    for (SCARDCONTEXT any : {context, SCARDCONTEXT(0), SCARDCONTEXT(777777)})
        EXPECT_EQ(SCardIsValidContext(any), 6) << any;
    EXPECT_EQ(logText(), "checking context is valid: \nINVALID CONTEXT\n"
                         "checking context is valid: \nINVALID CONTEXT\n"
                         "checking context is valid: \nINVALID CONTEXT\n");

    // A listing does not wait for enumeration: it shows what is there.
    char names[64] = {};
    DWORD size = sizeof names;
    EXPECT_EQ(SCardListReadersA(context, nullptr, names, &size), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(names, size), "Tessel A1 R1\0Tessel A1 R2\0\0"s);
}

TEST_F(ContextsTest, ReleaseAcceptsAnyValueAndChangesNothing)
{
    addRack("A1", 1);
    startLibrary(1);
    clearLog();

    EXPECT_EQ(SCardReleaseContext(0xFFFFFFFB), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(0xFFFFFFFB), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(42), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "Release Context -5\nRelease Context -5\nRelease Context 42\n");
    // A released context is as valid as any other number.
    EXPECT_EQ(SCardIsValidContext(42), SCARD_S_SUCCESS);
    EXPECT_NE(logText().find("checking context is valid: \nVALID CONTEXT\n"), std::string::npos);
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
    EXPECT_TRUE(containsInOrder(logText(), {"Reset racks\n"}));
    // No enumeration follows: the racks stay enumerated with their readers.
    EXPECT_EQ(SCardIsValidContext(0), SCARD_S_SUCCESS);
    DWORD size = 0;
    EXPECT_EQ(SCardListReadersA(0, nullptr, nullptr, &size), SCARD_S_SUCCESS);
    EXPECT_EQ(size, 3u * 13u + 1u);
}

}  // namespace
}  // namespace pcsc_test
