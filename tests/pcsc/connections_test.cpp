// Card connections: the protocol choice against the example ATRs, the
// message each call sends to the slot, the handle rules and the traces of
// both forms.
#include "pcsc_test_support.h"

namespace pcsc_test {
namespace {

constexpr uint8_t kSelectT0 = 0x20;
constexpr uint8_t kSelectT1 = 0x60;

class ConnectionsTest : public OneRackTest {
protected:
    // R1: T=1 only; R2: T=0 then T=1; R3: no protocol named; R4: empty.
    void startFourReaders()
    {
        startRack({atrOnlyT1(), atrT0ThenT1(), atrWithoutProtocol(), {}});
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

    // One narrow connect: its result, the active protocol, the stored T
    // number and the protocol selections it sent. A connect that fails
    // keeps the caller's handle. Returns the handle.
    SCARDHANDLE expectConnect(int address, DWORD preferred, LONG result, DWORD active, uint32_t tNumber,
                              const std::vector<uint8_t>& sent)
    {
        SCOPED_TRACE("R" + std::to_string(address) + " preferred " + std::to_string(preferred));
        restartLog();
        rackSimClearWireLog(device_);
        Outcome out = connectA(address, preferred);
        EXPECT_EQ(out.result, result);
        EXPECT_EQ(out.active, active);
        Reader* reader = readerNamed(readerName("A1", address));
        EXPECT_EQ(out.handle, result == SCARD_S_SUCCESS ? reader->handle : 0x1234u);
        EXPECT_EQ(reader->protocol(), tNumber);
        EXPECT_EQ(selections(address), sent);
        return out.handle;
    }

    // The command bytes of the protocol selections sent to a slot so far.
    std::vector<uint8_t> selections(int address)
    {
        std::vector<uint8_t> bytes;
        for (const auto& frame : framesTo(wireLog(device_), address))
            if (frame.size() == 5 && (frame[3] == kSelectT0 || frame[3] == kSelectT1)) bytes.push_back(frame[3]);
        return bytes;
    }
};

TEST_F(ConnectionsTest, TheProtocolIsChosenAgainstTheAtr)
{
    startFourReaders();
    Reader* r1 = readerNamed("Tessel A1 R1");

    // No protocol named and none seen on R3 before: T=1 is a mismatch.
    expectConnect(3, SCARD_PROTOCOL_T1, SCARD_E_PROTO_MISMATCH, SCARD_PROTOCOL_T1, 0, {});
    // Both protocols offered: the ATR's first wins (T=1 alone on R1; T=0
    // named first on R2, whatever else is asked for).
    expectConnect(1, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_S_SUCCESS, SCARD_PROTOCOL_T1, 1, {kSelectT1});
    EXPECT_TRUE(containsInOrder(logText(), {"SCardConnectA: Tessel A1 R1\n", "Got rack\n", "Got reader\n",
                                            "Protocol unspecified\n", "atr says 2\n", "Connecting with prot T1\n"}))
        << logText();
    expectConnect(2, 0xFFFF, SCARD_S_SUCCESS, SCARD_PROTOCOL_T0, 0, {kSelectT0});
    // An ATR that names no protocol: active 0, the T number wraps, and the
    // slot is told T=0.
    expectConnect(3, 3, SCARD_S_SUCCESS, 0, 0xFFFFFFFF, {kSelectT0});
    EXPECT_NE(logText().find("Connecting with prot T4294967295\n"), std::string::npos);
    EXPECT_EQ(logText().find("atr says"), std::string::npos);

    // A requested protocol the ATR offers passes; each connect sends the
    // byte again and gets the slot's one handle.
    SCARDHANDLE first = expectConnect(2, SCARD_PROTOCOL_T1, SCARD_S_SUCCESS, SCARD_PROTOCOL_T1, 1, {kSelectT1});
    SCARDHANDLE second = expectConnect(2, SCARD_PROTOCOL_T0, SCARD_S_SUCCESS, SCARD_PROTOCOL_T0, 0, {kSelectT0});
    EXPECT_EQ(first, second);
    EXPECT_LT(static_cast<int32_t>(first), 0);
    EXPECT_EQ(r1->handle, expectConnect(1, 0, SCARD_S_SUCCESS, 0, 0xFFFFFFFF, {kSelectT0})) << "protocol 0 passes";

    // T=1 alone: T=0 is a mismatch, nothing is sent, the handle is kept and
    // the stored protocol is unchanged.
    expectConnect(1, SCARD_PROTOCOL_T0, SCARD_E_PROTO_MISMATCH, SCARD_PROTOCOL_T0, 0xFFFFFFFF, {});
    EXPECT_EQ(logText(), "SCardConnectA: Tessel A1 R1\nGot rack\nGot reader\nRequested protocol is 1\natr says 2\n");
}

TEST_F(ConnectionsTest, WideTracesEarlyHandleAndRefusalsOfBothForms)
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

    // The narrow form refuses the same, with traces, and sends nothing.
    restartLog();
    rackSimClearWireLog(device_);
    empty = connectA(4, 3);
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
    const std::vector<uint8_t> selectT1 = {0x55, 0x01, 0x00, kSelectT1, 0x4A};
    EXPECT_EQ(framesTo(wireLog(device_), 1), std::vector<std::vector<uint8_t>>(4, selectT1));
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

}  // namespace
}  // namespace pcsc_test
