// Card connections: the protocol choice against the example ATRs, the
// message each call sends to the slot, the handle rules, the traces of both
// forms, and a slot that never replies.
#include "pcsc_test_support.h"

#include <chrono>

namespace pcsc_test {
namespace {

constexpr uint8_t kSelectT0 = 0x20;
constexpr uint8_t kSelectT1 = 0x60;

class ConnectionsTest : public test_support::RackFixture {
protected:
    // R1: T=1 only; R2: T=0 then T=1; R3: no protocol named; R4: empty.
    void startFourReaders()
    {
        device_ = addRack("A1", 4);
        insertCard(device_, 1, atrOnlyT1());
        insertCard(device_, 2, atrT0ThenT1());
        insertCard(device_, 3, atrWithoutProtocol());
        startLibrary(1);
        rackSimClearWireLog(device_);
        restartLog();
    }

    // The wide writer appends to a log that a narrow entry has started, as
    // the banner does at load; an empty entry shows as nothing.
    void restartLog()
    {
        clearLog();
        logWrite("");
    }

    struct Outcome {
        LONG result;
        SCARDHANDLE handle;
        DWORD active;
    };

    Outcome connectA(int address, DWORD preferred)
    {
        Outcome out{0, 0x1234, 0xEEEE};
        out.result = SCardConnectA(7, readerName("A1", address).c_str(), SCARD_SHARE_EXCLUSIVE, preferred, &out.handle,
                                   &out.active);
        return out;
    }

    Outcome connectW(int address, DWORD preferred)
    {
        Outcome out{0, 0x1234, 0xEEEE};
        std::wstring name = widen(readerName("A1", address));
        out.result = SCardConnectW(7, name.c_str(), SCARD_SHARE_SHARED, preferred, &out.handle, &out.active);
        return out;
    }

    // The command bytes of the protocol selections sent to a slot so far.
    std::vector<uint8_t> selections(int address)
    {
        std::vector<uint8_t> bytes;
        for (const auto& frame : framesTo(wireLog(device_), address))
            if (frame.size() == 5 && (frame[3] == kSelectT0 || frame[3] == kSelectT1)) bytes.push_back(frame[3]);
        return bytes;
    }

    int device_ = -1;
};

TEST_F(ConnectionsTest, ProtocolLeftToTheAtrTakesItsFirstProtocol)
{
    startFourReaders();
    Reader* r1 = readerNamed("Tessel A1 R1");
    Reader* r2 = readerNamed("Tessel A1 R2");

    Outcome t1 = connectA(1, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
    EXPECT_EQ(t1.result, SCARD_S_SUCCESS);
    EXPECT_EQ(t1.active, SCARD_PROTOCOL_T1);
    EXPECT_EQ(t1.handle, r1->handle);
    EXPECT_EQ(r1->protocol(), 1u);
    EXPECT_EQ(selections(1), std::vector<uint8_t>{kSelectT1});
    EXPECT_TRUE(containsInOrder(logText(), {"SCardConnectA: Tessel A1 R1\n", "Got rack\n", "Got reader\n",
                                            "Protocol unspecified\n", "atr says 2\n", "Connecting with prot T1\n"}))
        << logText();

    // T=0 named first wins, whatever follows.
    Outcome t0 = connectA(2, 0xFFFF);
    EXPECT_EQ(t0.result, SCARD_S_SUCCESS);
    EXPECT_EQ(t0.active, SCARD_PROTOCOL_T0);
    EXPECT_EQ(r2->protocol(), 0u);
    EXPECT_EQ(selections(2), std::vector<uint8_t>{kSelectT0});

    // An ATR that names no protocol: active 0, the T number wraps, and the
    // slot is told T=0.
    clearLog();
    Outcome none = connectA(3, 3);
    EXPECT_EQ(none.result, SCARD_S_SUCCESS);
    EXPECT_EQ(none.active, 0u);
    EXPECT_EQ(readerNamed("Tessel A1 R3")->protocol(), 0xFFFFFFFFu);
    EXPECT_EQ(selections(3), std::vector<uint8_t>{kSelectT0});
    EXPECT_NE(logText().find("Connecting with prot T4294967295\n"), std::string::npos);
    EXPECT_EQ(logText().find("atr says"), std::string::npos);
}

TEST_F(ConnectionsTest, RequestedProtocolIsTestedAgainstTheAtr)
{
    startFourReaders();

    // T=0 then T=1: both requests pass.
    Outcome first = connectA(2, SCARD_PROTOCOL_T1);
    EXPECT_EQ(first.result, SCARD_S_SUCCESS);
    EXPECT_EQ(first.active, SCARD_PROTOCOL_T1);
    Outcome second = connectA(2, SCARD_PROTOCOL_T0);
    EXPECT_EQ(second.result, SCARD_S_SUCCESS);
    EXPECT_EQ(second.active, SCARD_PROTOCOL_T0);
    // Every connect gets the slot's one handle and sends the byte again.
    EXPECT_EQ(first.handle, second.handle);
    EXPECT_LT(static_cast<int32_t>(first.handle), 0);
    EXPECT_EQ(selections(2), (std::vector<uint8_t>{kSelectT1, kSelectT0}));

    // T=1 alone: T=0 is a mismatch, nothing is sent, the handle is kept.
    clearLog();
    rackSimClearWireLog(device_);
    Outcome mismatch = connectA(1, SCARD_PROTOCOL_T0);
    EXPECT_EQ(mismatch.result, SCARD_E_PROTO_MISMATCH);
    EXPECT_EQ(mismatch.active, SCARD_PROTOCOL_T0);
    EXPECT_EQ(mismatch.handle, 0x1234u);
    EXPECT_EQ(readerNamed("Tessel A1 R1")->protocol(), 0u) << "unchanged";
    EXPECT_TRUE(selections(1).empty());
    EXPECT_EQ(logText(), "SCardConnectA: Tessel A1 R1\nGot rack\nGot reader\nRequested protocol is 1\natr says 2\n");

    // Protocol 0 always passes: active 0, T number 0xFFFFFFFF, byte 0x20.
    Outcome zero = connectA(1, 0);
    EXPECT_EQ(zero.result, SCARD_S_SUCCESS);
    EXPECT_EQ(zero.active, 0u);
    EXPECT_EQ(selections(1), std::vector<uint8_t>{kSelectT0});

    // No protocol named and none seen on this slot before: T=1 fails.
    EXPECT_EQ(connectA(3, SCARD_PROTOCOL_T1).result, SCARD_E_PROTO_MISMATCH);
}

TEST_F(ConnectionsTest, WideConnectTracesItsOwnWayAndStoresTheHandleEarly)
{
    startFourReaders();
    Reader* r1 = readerNamed("Tessel A1 R1");

    Outcome ok = connectW(1, SCARD_PROTOCOL_T1);
    EXPECT_EQ(ok.result, SCARD_S_SUCCESS);
    EXPECT_EQ(ok.active, SCARD_PROTOCOL_T1);
    EXPECT_EQ(ok.handle, r1->handle);
    EXPECT_TRUE(containsInOrder(logText(), {"SCardConnectW: Tessel A1 R1\n", "pref prot is 2\n", "atr says 2\n",
                                            "Connected\n", "active is 2\n", "Connecting with prot T1\n"}))
        << logText();
    EXPECT_EQ(logText().find("Got rack"), std::string::npos);

    // The wide form has the handle stored before the protocol test.
    restartLog();
    Outcome mismatch = connectW(1, SCARD_PROTOCOL_T0);
    EXPECT_EQ(mismatch.result, SCARD_E_PROTO_MISMATCH);
    EXPECT_EQ(mismatch.handle, r1->handle);
    EXPECT_EQ(logText(), "SCardConnectW: Tessel A1 R1\npref prot is 1\natr says 2\n");

    // Failures without a trace of their own.
    restartLog();
    Outcome empty = connectW(4, SCARD_PROTOCOL_T1);
    EXPECT_EQ(empty.result, SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(empty.handle, 0x1234u);
    EXPECT_EQ(empty.active, SCARD_PROTOCOL_T1);
    Outcome unknown = connectW(9, SCARD_PROTOCOL_T1);
    EXPECT_EQ(unknown.result, SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(logText(), "SCardConnectW: Tessel A1 R4\nSCardConnectW: Tessel A1 R9\n");
}

TEST_F(ConnectionsTest, NarrowConnectRefusesUnknownReadersAndEmptySlots)
{
    startFourReaders();

    Outcome empty = connectA(4, 3);
    EXPECT_EQ(empty.result, SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(empty.active, 3u);
    EXPECT_EQ(empty.handle, 0x1234u);
    EXPECT_EQ(logText(), "SCardConnectA: Tessel A1 R4\nGot rack\nGot reader\nNo card\n");

    clearLog();
    SCARDHANDLE handle = 0x1234;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(0, "tessel A1 R1", 2, 2, &handle, &active), SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(logText(), "SCardConnectA: tessel A1 R1\nNo Reader\n");

    // Nulls the caller should not pass are refused, not written through.
    EXPECT_EQ(SCardConnectA(0, nullptr, 2, 2, &handle, &active), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardConnectA(0, "Tessel A1 R1", 2, 2, nullptr, &active), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardConnectW(0, L"Tessel A1 R1", 2, 2, &handle, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_TRUE(selections(1).empty());
}

TEST_F(ConnectionsTest, DisconnectAndReconnectByDisposition)
{
    startFourReaders();
    SCARDHANDLE handle = connectTo("Tessel A1 R1", SCARD_PROTOCOL_T1);
    ASSERT_EQ(selections(1), std::vector<uint8_t>{kSelectT1});
    const std::string signedHandle = std::to_string(static_cast<int32_t>(handle));

    // Leave: nothing to the rack, for any handle.
    clearLog();
    EXPECT_EQ(SCardDisconnect(0xDEAD, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(logText(), "SCardDisconnect: 0, handle: 57005\nleave card\n");
    EXPECT_EQ(SCardReconnect(0xDEAD, 0, 0, SCARD_LEAVE_CARD, nullptr), SCARD_S_SUCCESS);
    // Eject and anything else: refused, for any handle.
    EXPECT_EQ(SCardDisconnect(handle, SCARD_EJECT_CARD), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardReconnect(handle, 0, 0, 7, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(selections(1).size(), 1u);

    // Reset and unpower send the stored protocol again.
    clearLog();
    EXPECT_EQ(SCardDisconnect(handle, SCARD_RESET_CARD), SCARD_S_SUCCESS);
    EXPECT_TRUE(containsInOrder(logText(), {"SCardDisconnect: 1, handle: " + signedHandle + "\n",
                                            "Tessel A1 R1 reset\n"}))
        << logText();
    EXPECT_EQ(SCardDisconnect(handle, SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
    DWORD untouched = 0xABC;
    clearLog();
    EXPECT_EQ(SCardReconnect(handle, 0, SCARD_PROTOCOL_T0, SCARD_UNPOWER_CARD, &untouched), SCARD_S_SUCCESS);
    EXPECT_TRUE(containsInOrder(logText(), {"SCardReconnect: 2\n", "Tessel A1 R1 reset\n"}));
    EXPECT_EQ(untouched, 0xABCu);
    ASSERT_TRUE(waitUntil([&] { return selections(1).size() == 4; }));
    EXPECT_EQ(selections(1), (std::vector<uint8_t>{kSelectT1, kSelectT1, kSelectT1, kSelectT1}));
    EXPECT_EQ(readerNamed("Tessel A1 R1")->protocol(), 1u) << "not negotiated anew";

    // A handle that no reader holds.
    clearLog();
    EXPECT_EQ(SCardDisconnect(0x1234, SCARD_RESET_CARD), SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(SCardReconnect(0x1234, 0, 0, SCARD_RESET_CARD, nullptr), SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(logText(), "SCardDisconnect: 1, handle: 4660\nidx missing\nSCardReconnect: 1\nidx missing\n");

    // The handle still finds its reader after the disconnect.
    DWORD state = 0;
    EXPECT_EQ(SCardStatusA(handle, nullptr, nullptr, &state, nullptr, nullptr, nullptr), SCARD_S_SUCCESS);
    EXPECT_EQ(state, kStateCard);
}

TEST_F(ConnectionsTest, ASlotThatNeverRepliesEndsTheWaitAndFreesTheRackLock)
{
    startFourReaders();
    Rack* rack = rackOf("Tessel A1 R1");
    rackSimSetSlotFault(device_, 1, RACKSIM_NO_ACK, 1);

    auto start = std::chrono::steady_clock::now();
    SCARDHANDLE handle = connectTo("Tessel A1 R1", SCARD_PROTOCOL_T1);
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(handle, readerNamed("Tessel A1 R1")->handle);
    // One second of settling and the 17 s reply wait, in library time.
    EXPECT_GE(elapsed, std::chrono::milliseconds(16000 / kTimeScale));
    EXPECT_FALSE(rack->isLocked()) << "the connect frees the lock its slot held";
    EXPECT_EQ(readerNamed("Tessel A1 R1")->outgoing.unread.load(), 0u);

    // The rack serves the other slots again.
    SCARDHANDLE other = connectTo("Tessel A1 R2", SCARD_PROTOCOL_T0);
    BYTE answer[8] = {};
    DWORD length = sizeof answer;
    const BYTE command[] = {0x00, 0xB0, 0x00, 0x00, 0x02};
    EXPECT_EQ(SCardTransmit(other, &g_rgSCardT0Pci, command, sizeof command, nullptr, answer, &length),
              SCARD_S_SUCCESS);
    EXPECT_EQ(length, 2u);
}

}  // namespace
}  // namespace pcsc_test
