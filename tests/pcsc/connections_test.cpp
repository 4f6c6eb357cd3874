// Card connections: the protocol choice against the example ATRs, the
// handles (one per connection, bound to its context), share modes, cards
// that leave or change under a connection, connects that join a powered
// card instead of selecting it again, transactions and fork.
#include "pcsc_test_support.h"
#include "diag/trace_log.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

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
        settle();
        clearLog();
        logWrite("");
    }

    struct Outcome {
        LONG result;
        SCARDHANDLE handle;
        DWORD active;
    };

    Outcome connectA(int address, DWORD preferred, DWORD shareMode = SCARD_SHARE_SHARED,
                     SCARDCONTEXT context = testContext())
    {
        Outcome out{0, 0x1234, 0xEEEE};
        out.result =
            SCardConnectA(context, readerName("A1", address).c_str(), shareMode, preferred, &out.handle, &out.active);
        return out;
    }

    Outcome connectW(int address, DWORD preferred)
    {
        Outcome out{0, 0x1234, 0xEEEE};
        std::wstring name = widen(readerName("A1", address));
        out.result =
            SCardConnectW(testContext(), name.c_str(), SCARD_SHARE_SHARED, preferred, &out.handle, &out.active);
        return out;
    }

    // One narrow connect to a card nobody holds: its result, the active
    // protocol, the stored T number and the protocol selections it sent. A
    // connect that fails leaves the caller's outputs alone. A connection
    // made is ended with a reset, so that the next one selects again.
    void expectConnect(int address, DWORD preferred, LONG result, DWORD active, uint32_t tNumber,
                       const std::vector<uint8_t>& sent)
    {
        SCOPED_TRACE("R" + std::to_string(address) + " preferred " + std::to_string(preferred));
        restartLog();
        rackSimClearWireLog(device_);
        Outcome out = connectA(address, preferred);
        EXPECT_EQ(out.result, result);
        EXPECT_EQ(out.active, result == SCARD_S_SUCCESS ? active : 0xEEEEu);
        EXPECT_EQ(out.handle != 0x1234, result == SCARD_S_SUCCESS);
        EXPECT_EQ(readerNamed(readerName("A1", address))->protocol(), tNumber);
        EXPECT_EQ(selections(address), sent);
        if (result == SCARD_S_SUCCESS) {
            EXPECT_EQ(SCardDisconnect(out.handle, SCARD_RESET_CARD), SCARD_S_SUCCESS);
        }
    }

    // The command bytes of the protocol selections sent to a slot so far.
    std::vector<uint8_t> selections(int address)
    {
        std::vector<uint8_t> bytes;
        for (const auto& frame : framesTo(wireLog(device_), address))
            if (frame.size() == 5 && (frame[3] == kSelectT0 || frame[3] == kSelectT1)) bytes.push_back(frame[3]);
        return bytes;
    }

    LONG statusOf(SCARDHANDLE handle)
    {
        return SCardStatusA(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    }

    LONG transmitTo(SCARDHANDLE handle, std::vector<uint8_t> command = {0x00, 0x84, 0x00, 0x00, 0x08})
    {
        BYTE answer[64];
        DWORD length = sizeof answer;
        return SCardTransmit(handle, &g_rgSCardT1Pci, command.data(), static_cast<DWORD>(command.size()), nullptr,
                             answer, &length);
    }

    void waitForEvents(int address, uint32_t events)
    {
        Reader* reader = readerNamed(readerName("A1", address));
        ASSERT_TRUE(waitUntil([&] { return reader->eventCount() >= events; }));
    }
};

TEST_F(ConnectionsTest, TheProtocolIsChosenAgainstTheAtr)
{
    startFourReaders();

    // No protocol named and none seen on R3 before: T=1 is a mismatch.
    expectConnect(3, SCARD_PROTOCOL_T1, SCARD_E_PROTO_MISMATCH, 0, 0, {});
    // Both protocols offered: the ATR's first wins (T=1 alone on R1; T=0
    // named first on R2).
    expectConnect(1, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_S_SUCCESS, SCARD_PROTOCOL_T1, 1, {kSelectT1});
    EXPECT_TRUE(containsInOrder(logText(), {"SCardConnectA: Tessel A1 R1\n", "Got rack\n", "Got reader\n",
                                            "Protocol unspecified\n", "atr says 2\n", "Connecting with prot T1\n"}))
        << logText();
    expectConnect(2, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1 | SCARD_PROTOCOL_RAW, SCARD_S_SUCCESS, SCARD_PROTOCOL_T0,
                  0, {kSelectT0});
    // An ATR that names no protocol: active 0, the T number wraps, and the
    // slot is told T=0.
    expectConnect(3, 3, SCARD_S_SUCCESS, 0, 0xFFFFFFFF, {kSelectT0});
    EXPECT_NE(logText().find("Connecting with prot T4294967295\n"), std::string::npos);
    EXPECT_EQ(logText().find("atr says"), std::string::npos);

    // A requested protocol the ATR offers passes.
    expectConnect(2, SCARD_PROTOCOL_T1, SCARD_S_SUCCESS, SCARD_PROTOCOL_T1, 1, {kSelectT1});
    expectConnect(2, SCARD_PROTOCOL_T0, SCARD_S_SUCCESS, SCARD_PROTOCOL_T0, 0, {kSelectT0});

    // T=1 alone: T=0 is a mismatch, raw alone is one everywhere; nothing is
    // sent and the stored protocol is unchanged.
    expectConnect(1, SCARD_PROTOCOL_T0, SCARD_E_PROTO_MISMATCH, 0, 1, {});
    EXPECT_EQ(logText(), "SCardConnectA: Tessel A1 R1\nGot rack\nGot reader\nRequested protocol is 1\natr says 2\n");
    expectConnect(1, SCARD_PROTOCOL_RAW, SCARD_E_PROTO_MISMATCH, 0, 1, {});

    // Share modes and protocol masks that are not valid.
    expectConnect(1, 0, SCARD_E_INVALID_VALUE, 0, 1, {});
    expectConnect(1, 0xFFFF, SCARD_E_INVALID_VALUE, 0, 1, {});
    for (DWORD shareMode : {DWORD(0), DWORD(4), DWORD(99)}) {
        Outcome out = connectA(1, SCARD_PROTOCOL_T1, shareMode);
        EXPECT_EQ(out.result, SCARD_E_INVALID_VALUE) << shareMode;
    }
}

TEST_F(ConnectionsTest, WideTracesAndRefusalsOfBothForms)
{
    startFourReaders();

    Outcome ok = connectW(1, SCARD_PROTOCOL_T1);
    EXPECT_EQ(ok.result, SCARD_S_SUCCESS);
    EXPECT_EQ(ok.active, SCARD_PROTOCOL_T1);
    EXPECT_EQ(findReaderByCardHandle(ok.handle).reader, readerNamed("Tessel A1 R1"));
    EXPECT_TRUE(containsInOrder(logText(), {"SCardConnectW: Tessel A1 R1\n", "pref prot is 2\n", "atr says 2\n",
                                            "Connecting with prot T1\n", "Connected\n", "active is 2\n"}))
        << logText();
    EXPECT_EQ(logText().find("Got rack"), std::string::npos);

    // The card runs T=1 now: a connect for T=0 alone cannot join it.
    restartLog();
    Outcome mismatch = connectW(1, SCARD_PROTOCOL_T0);
    EXPECT_EQ(mismatch.result, SCARD_E_PROTO_MISMATCH);
    EXPECT_EQ(mismatch.handle, 0x1234u);
    EXPECT_EQ(logText(), "SCardConnectW: Tessel A1 R1\npref prot is 1\n");

    // Failures without a trace of their own.
    restartLog();
    Outcome empty = connectW(4, SCARD_PROTOCOL_T1);
    EXPECT_EQ(empty.result, SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(empty.handle, 0x1234u);
    Outcome unknown = connectW(9, SCARD_PROTOCOL_T1);
    EXPECT_EQ(unknown.result, SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(logText(), "SCardConnectW: Tessel A1 R4\nSCardConnectW: Tessel A1 R9\n");

    // The narrow form refuses the same, with traces, and sends nothing.
    restartLog();
    rackSimClearWireLog(device_);
    empty = connectA(4, 3);
    EXPECT_EQ(empty.result, SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(empty.active, 0xEEEEu);
    EXPECT_EQ(empty.handle, 0x1234u);
    EXPECT_EQ(logText(), "SCardConnectA: Tessel A1 R4\nGot rack\nGot reader\nNo card\n");

    clearLog();
    SCARDHANDLE handle = 0x1234;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(testContext(), "tessel A1 R1", 2, 2, &handle, &active), SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(logText(), "SCardConnectA: tessel A1 R1\nNo Reader\n");

    // Nulls the caller should not pass are refused, not written through.
    EXPECT_EQ(SCardConnectA(testContext(), nullptr, 2, 2, &handle, &active), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardConnectA(testContext(), "Tessel A1 R1", 2, 2, nullptr, &active), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardConnectW(testContext(), L"Tessel A1 R1", 2, 2, &handle, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_TRUE(selections(1).empty());
}

// Every connect makes a handle of its own, bound to its context; it ends
// with its disconnect or its context's release, and a context ends with
// its release. Values never handed out are refused everywhere.
TEST_F(ConnectionsTest, HandlesBelongToOneConnectionAndEndWithItOrItsContext)
{
    startFourReaders();
    SCARDCONTEXT context = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);

    std::set<SCARDHANDLE> handles;
    for (int i = 0; i < 20; ++i) {
        Outcome out = connectA(2, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_SHARE_SHARED, context);
        ASSERT_EQ(out.result, SCARD_S_SUCCESS);
        EXPECT_NE(out.handle, 0);
        EXPECT_GT(static_cast<int32_t>(out.handle), 0) << "positive in every client's view";
        EXPECT_NE(static_cast<SCARDCONTEXT>(out.handle), context);
        handles.insert(out.handle);
    }
    EXPECT_EQ(handles.size(), 20u) << "no two live handles are equal";
    const SCARDHANDLE kept = connectTo("Tessel A1 R2");

    const SCARDHANDLE first = *handles.begin();
    EXPECT_EQ(statusOf(first), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardDisconnect(first, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(first), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(transmitTo(first), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardDisconnect(first, SCARD_LEAVE_CARD), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(findReaderByCardHandle(first).reader, nullptr);

    // Releasing the context ends its handles, not those of another context.
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReleaseContext(context), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardIsValidContext(context), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardReleaseContext(context), SCARD_E_INVALID_HANDLE);
    for (SCARDHANDLE handle : handles) EXPECT_EQ(statusOf(handle), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(statusOf(kept), SCARD_S_SUCCESS);

    // A released context and values never handed out make no connection
    // and wait for nothing.
    for (SCARDCONTEXT bad : {context, SCARDCONTEXT(0), SCARDCONTEXT(12345)}) {
        EXPECT_EQ(connectA(2, SCARD_PROTOCOL_T0, SCARD_SHARE_SHARED, bad).result, SCARD_E_INVALID_HANDLE) << bad;
        SCARD_READERSTATEA state{};
        state.szReader = "Tessel A1 R2";
        EXPECT_EQ(SCardGetStatusChangeA(bad, 0, &state, 1), SCARD_E_INVALID_HANDLE) << bad;
        EXPECT_EQ(SCardIsValidContext(bad), SCARD_E_INVALID_HANDLE) << bad;
    }
    EXPECT_EQ(statusOf(0), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(statusOf(0x7FFFFFFF), SCARD_E_INVALID_HANDLE);
}

// Exclusive keeps every other connection out while it lasts and is refused
// while another exists; shared connections coexist; direct reaches empty
// and mute readers; a reconnect changes the mode under the same rules.
TEST_F(ConnectionsTest, ShareModesWithinTheProcess)
{
    startRack({atrT0ThenT1(), {}, atrOnlyT1()}, 3);
    const DWORD any = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;

    Outcome shared1 = connectA(1, any);
    Outcome shared2 = connectA(1, any);
    ASSERT_EQ(shared1.result, SCARD_S_SUCCESS);
    ASSERT_EQ(shared2.result, SCARD_S_SUCCESS);
    EXPECT_NE(shared1.handle, shared2.handle);
    // Refused while another connection exists, then granted.
    EXPECT_EQ(connectA(1, any, SCARD_SHARE_EXCLUSIVE).result, SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(SCardDisconnect(shared1.handle, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(connectA(1, any, SCARD_SHARE_EXCLUSIVE).result, SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(SCardDisconnect(shared2.handle, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    Outcome exclusive = connectA(1, any, SCARD_SHARE_EXCLUSIVE);
    ASSERT_EQ(exclusive.result, SCARD_S_SUCCESS);
    // It keeps others out, direct ones too, and in other contexts.
    SCARDCONTEXT other = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &other), SCARD_S_SUCCESS);
    EXPECT_EQ(connectA(1, any, SCARD_SHARE_SHARED, other).result, SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(connectA(1, 0, SCARD_SHARE_DIRECT).result, SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(transmitTo(exclusive.handle), SCARD_S_SUCCESS);

    // Back to shared by a reconnect lets the others in; exclusive again is
    // refused while they are there.
    DWORD active = 0;
    EXPECT_EQ(SCardReconnect(exclusive.handle, SCARD_SHARE_SHARED, any, SCARD_LEAVE_CARD, &active), SCARD_S_SUCCESS);
    EXPECT_EQ(active, SCARD_PROTOCOL_T0);
    Outcome joined = connectA(1, any, SCARD_SHARE_SHARED, other);
    ASSERT_EQ(joined.result, SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReconnect(exclusive.handle, SCARD_SHARE_EXCLUSIVE, any, SCARD_LEAVE_CARD, &active),
              SCARD_E_SHARING_VIOLATION);
    EXPECT_EQ(SCardReconnect(exclusive.handle, 7, any, SCARD_LEAVE_CARD, &active), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardReconnect(exclusive.handle, SCARD_SHARE_SHARED, 0, SCARD_LEAVE_CARD, &active),
              SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardReconnect(exclusive.handle, SCARD_SHARE_SHARED, any, 9, &active), SCARD_E_INVALID_VALUE);
    // Releasing a context frees its share.
    EXPECT_EQ(SCardReleaseContext(other), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardReconnect(exclusive.handle, SCARD_SHARE_EXCLUSIVE, any, SCARD_LEAVE_CARD, &active), SCARD_S_SUCCESS);

    // Direct: an empty and a mute reader, protocol 0, no message; a card
    // connect to them is refused.
    rackSimClearWireLog(device_);
    for (int address : {2, 3}) {
        Outcome direct = connectA(address, 0, SCARD_SHARE_DIRECT);
        EXPECT_EQ(direct.result, SCARD_S_SUCCESS) << address;
        EXPECT_EQ(direct.active, 0u) << address;
        EXPECT_EQ(findReaderByCardHandle(direct.handle).reader, readerNamed(readerName("A1", address)));
    }
    EXPECT_EQ(connectA(2, any).result, SCARD_E_NO_SMARTCARD);
    EXPECT_EQ(connectA(3, any).result, SCARD_W_UNRESPONSIVE_CARD);
    EXPECT_TRUE(wireLog(device_).empty());
}

// A card that leaves, changes or is reset by another handle marks every
// open handle to its reader until that handle reconnects or disconnects;
// nothing is sent on such a handle.
TEST_F(ConnectionsTest, RemovedSwappedAndResetCardsAreReportedUntilReconnect)
{
    startRack({atrT0ThenT1(), atrT0ThenT1()});
    const std::vector<uint8_t> otherAtr = {0x3B, 0x80, 0x80, 0x01, 0x42};
    SCARDHANDLE a = connectTo("Tessel A1 R1");
    SCARDHANDLE b = connectTo("Tessel A1 R1");
    Reader* r1 = readerNamed("Tessel A1 R1");
    const uint32_t events = r1->eventCount();

    // Removed, then the same card back: both handles have lost their card.
    rackSimRemoveCard(device_, 1);
    waitForEvents(1, events + 1);
    rackSimInsertCard(device_, 1, atrT0ThenT1().data(), 4);
    waitForEvents(1, events + 2);
    rackSimClearWireLog(device_);
    EXPECT_EQ(statusOf(a), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(transmitTo(a), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(SCardBeginTransaction(a), SCARD_W_REMOVED_CARD);
    EXPECT_TRUE(commandsTo(wireLog(device_), 1).empty()) << "nothing goes to the new card";
    DWORD active = 0;
    EXPECT_EQ(SCardReconnect(a, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(a), SCARD_S_SUCCESS);
    EXPECT_EQ(transmitTo(a), SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(b), SCARD_W_REMOVED_CARD) << "until its own reconnect";
    EXPECT_EQ(SCardDisconnect(b, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);

    // A new ATR in a slot that holds a card, with no removal in between.
    b = connectTo("Tessel A1 R1");
    rackSimInsertCard(device_, 1, otherAtr.data(), static_cast<int>(otherAtr.size()));
    waitForEvents(1, events + 3);
    EXPECT_EQ(statusOf(a), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(statusOf(b), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(r1->atrLength(), otherAtr.size());
    // A status with the ATR already known is no event.
    test_support::inject(device_, test_support::slotFrame(1, 0x05, otherAtr));
    test_support::inject(device_, test_support::slotFrame(2, 0x05, atrT0ThenT1()));
    SCardReconnect(a, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active);
    SCardReconnect(b, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active);
    const uint32_t r2Events = readerNamed("Tessel A1 R2")->eventCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(r1->eventCount(), events + 3);
    EXPECT_EQ(readerNamed("Tessel A1 R2")->eventCount(), r2Events);

    // A reset through one handle resets the others, not itself.
    EXPECT_EQ(SCardReconnect(a, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, SCARD_RESET_CARD, &active), SCARD_S_SUCCESS);
    EXPECT_EQ(active, SCARD_PROTOCOL_T0);
    EXPECT_EQ(statusOf(a), SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(b), SCARD_W_RESET_CARD);
    EXPECT_EQ(transmitTo(b), SCARD_W_RESET_CARD);
    EXPECT_EQ(SCardReconnect(b, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, SCARD_LEAVE_CARD, &active), SCARD_S_SUCCESS);
    EXPECT_EQ(transmitTo(b), SCARD_S_SUCCESS);
    // A disconnect with reset does the same to the handles that stay.
    EXPECT_EQ(SCardDisconnect(a, SCARD_UNPOWER_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(b), SCARD_W_RESET_CARD);
}

// Dispositions of SCardDisconnect and SCardReconnect: leave tells the slot
// nothing; reset, unpower and eject send the selection again.
TEST_F(ConnectionsTest, DisconnectAndReconnectByDisposition)
{
    startFourReaders();
    SCARDHANDLE handle = connectTo("Tessel A1 R1", SCARD_PROTOCOL_T1);
    ASSERT_EQ(selections(1), std::vector<uint8_t>{kSelectT1});
    const std::string signedHandle = std::to_string(static_cast<int32_t>(handle));

    settle();
    clearLog();
    EXPECT_EQ(SCardDisconnect(0xDEAD, SCARD_LEAVE_CARD), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(logText(), "SCardDisconnect: 0, handle: 57005\n");
    EXPECT_EQ(SCardDisconnect(handle, 7), SCARD_E_INVALID_VALUE);
    DWORD active = 0xABC;
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, 7, &active), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, nullptr),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(selections(1).size(), 1u);

    // Reconnect with leave joins the powered card; unpower selects again,
    // and the protocol is negotiated anew.
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(active, SCARD_PROTOCOL_T1);
    EXPECT_EQ(selections(1).size(), 1u);
    clearLog();
    active = 0xABC;
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, SCARD_UNPOWER_CARD,
                             &active),
              SCARD_S_SUCCESS);
    EXPECT_TRUE(containsInOrder(logText(), {"SCardReconnect: 2\n", "Tessel A1 R1 reset\n"}));
    EXPECT_EQ(active, SCARD_PROTOCOL_T1);

    // Eject is taken as unpower; the handle is gone afterwards.
    clearLog();
    EXPECT_EQ(SCardDisconnect(handle, SCARD_EJECT_CARD), SCARD_S_SUCCESS);
    EXPECT_TRUE(containsInOrder(logText(), {"SCardDisconnect: 3, handle: " + signedHandle + "\n",
                                            "Tessel A1 R1 reset\n"}))
        << logText();
    const std::vector<uint8_t> selectT1 = {0x55, 0x01, 0x00, kSelectT1, 0x4A};
    EXPECT_EQ(framesTo(wireLog(device_), 1), std::vector<std::vector<uint8_t>>(3, selectT1));
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active),
              SCARD_E_INVALID_HANDLE);
}

// A connect joins a card that is already powered, with no message and no
// pause; one after a removal, a reset or an unpower selects it again.
TEST_F(ConnectionsTest, ConnectsJoinAPoweredCardAndSelectOnlyAColdOne)
{
    startRack({atrT0ThenT1()});
    const DWORD any = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;
    struct Step {
        const char* what;
        std::function<void(SCARDHANDLE&)> before;
        size_t selectionsOfConnect;
    };
    SCARDHANDLE held = connectTo("Tessel A1 R1", any);
    const Step steps[] = {
        {"a second connect while the first holds the card", [](SCARDHANDLE&) {}, 0},
        {"after the only connection left the card",
         [](SCARDHANDLE& h) { EXPECT_EQ(SCardDisconnect(h, SCARD_LEAVE_CARD), SCARD_S_SUCCESS); }, 0},
        {"after a disconnect with reset",
         [](SCARDHANDLE& h) { EXPECT_EQ(SCardDisconnect(h, SCARD_RESET_CARD), SCARD_S_SUCCESS); }, 1},
        {"after a disconnect with unpower",
         [](SCARDHANDLE& h) { EXPECT_EQ(SCardDisconnect(h, SCARD_UNPOWER_CARD), SCARD_S_SUCCESS); }, 1},
        {"after the card was taken out and put back",
         [this](SCARDHANDLE& h) {
             EXPECT_EQ(SCardDisconnect(h, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
             const uint32_t events = readerNamed("Tessel A1 R1")->eventCount();
             rackSimRemoveCard(device_, 1);
             waitForEvents(1, events + 1);
             rackSimInsertCard(device_, 1, atrT0ThenT1().data(), 4);
             waitForEvents(1, events + 2);
         },
         1},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        step.before(held);
        rackSimClearWireLog(device_);
        Outcome out = connectA(1, any);
        ASSERT_EQ(out.result, SCARD_S_SUCCESS);
        EXPECT_EQ(out.active, SCARD_PROTOCOL_T0) << "the protocol already in use";
        EXPECT_EQ(selections(1).size(), step.selectionsOfConnect);
        held = out.handle;
    }
}

// Ten threads connect to one cold card at once: one selection goes out,
// and all ten get handles of their own with the same protocol.
TEST_F(ConnectionsTest, TenConcurrentConnectsSendOneFrame)
{
    startRack({atrT0ThenT1()});
    testContext();
    std::vector<Outcome> outcomes(10);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (size_t i = 0; i < outcomes.size(); ++i)
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < 10) std::this_thread::yield();
            outcomes[i] = connectA(1, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
        });
    for (auto& thread : threads) thread.join();
    std::set<SCARDHANDLE> handles;
    for (const Outcome& out : outcomes) {
        EXPECT_EQ(out.result, SCARD_S_SUCCESS);
        EXPECT_EQ(out.active, SCARD_PROTOCOL_T0);
        handles.insert(out.handle);
    }
    EXPECT_EQ(handles.size(), 10u);
    EXPECT_EQ(selections(1).size(), 1u);
}

// The connect's wait ends on the slot's answer to its own selection: a
// frame left from an earlier exchange, or one that arrives while the
// selection still waits for the bus, does not end it; a slot that never
// answers makes the connect fail.
TEST_F(ConnectionsTest, AStaleAnswerDoesNotEndTheWaitAndNoAnswerIsAnError)
{
    startRack({atrT0ThenT1(), atrT0ThenT1()});
    const DWORD any = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;
    // R2 holds the bus: its command is never acknowledged, so the lock
    // stays with it until its exchange gives up.
    SCARDHANDLE busy = connectTo("Tessel A1 R2", any);
    rackSimSetSlotFault(device_, 2, RACKSIM_NO_ACK, 1);
    std::thread holder([&] { EXPECT_EQ(transmitTo(busy), SCARD_E_TIMEOUT); });
    ASSERT_TRUE(waitUntil([&] { return rackOf("Tessel A1 R1")->isLocked(); }));

    // An old answer already stands in R1's mailbox, and R1 will stay silent.
    test_support::inject(device_, test_support::slotFrame(1, 0x05, atrT0ThenT1()));
    ASSERT_TRUE(waitUntil([&] { return readerNamed("Tessel A1 R1")->answerWaiting(); }));
    rackSimSetSlotFault(device_, 1, RACKSIM_NO_ACK, 1);
    clearLog();
    Outcome out{};
    std::thread connector([&] { out = connectA(1, any); });
    // While the selection waits behind R2, another stale frame arrives.
    ASSERT_TRUE(waitUntil([&] { return countOf(logText(), "Connecting with prot T0\n") == 1; }));
    test_support::inject(device_, test_support::slotFrame(1, 0x05, atrT0ThenT1()));
    connector.join();
    holder.join();
    EXPECT_EQ(out.result, SCARD_W_UNRESPONSIVE_CARD);
    EXPECT_EQ(out.handle, 0x1234u);
    EXPECT_NE(logText().find("Tessel A1 R1 no answer to the protocol selection\n"), std::string::npos) << logText();
    // The slot answers again: the next connect selects and succeeds.
    rackSimClearWireLog(device_);
    EXPECT_EQ(connectA(1, any).result, SCARD_S_SUCCESS);
    EXPECT_EQ(selections(1).size(), 1u);
}

// Two threads each run a transaction of three commands on one card; the
// card sees each sequence whole, never one inside the other.
TEST_F(ConnectionsTest, TransactionsKeepSequencesWholeAndEndAsAsked)
{
    startRack({atrT0ThenT1()});
    rackSimSetEcho(device_, 1);
    SCARDHANDLE first = connectTo("Tessel A1 R1");
    SCARDHANDLE second = connectTo("Tessel A1 R1");
    rackSimClearWireLog(device_);

    auto sequence = [&](SCARDHANDLE handle, uint8_t tag) {
        for (int round = 0; round < 5; ++round) {
            ASSERT_EQ(SCardBeginTransaction(handle), SCARD_S_SUCCESS);
            for (uint8_t step = 0; step < 3; ++step) {
                EXPECT_EQ(transmitTo(handle, {0x00, 0x20, tag, step}), SCARD_S_SUCCESS);
                std::this_thread::yield();
            }
            ASSERT_EQ(SCardEndTransaction(handle, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
        }
    };
    std::thread a(sequence, first, 0xA1);
    std::thread b(sequence, second, 0xB2);
    a.join();
    b.join();
    const auto commands = commandsTo(wireLog(device_), 1);
    ASSERT_EQ(commands.size(), 30u);
    for (size_t i = 0; i < commands.size(); i += 3)
        for (size_t step = 0; step < 3; ++step) {
            EXPECT_EQ(commands[i + step][6], commands[i][6]) << "a sequence was interleaved at " << i;
            EXPECT_EQ(commands[i + step][7], step);
        }

    // Ending what was never begun; an end with reset selects the card
    // again and resets the other handle, not this one.
    EXPECT_EQ(SCardEndTransaction(first, SCARD_LEAVE_CARD), SCARD_E_NOT_TRANSACTED);
    ASSERT_EQ(SCardBeginTransaction(first), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardEndTransaction(second, SCARD_LEAVE_CARD), SCARD_E_NOT_TRANSACTED);
    rackSimClearWireLog(device_);
    EXPECT_EQ(SCardEndTransaction(first, SCARD_RESET_CARD), SCARD_S_SUCCESS);
    EXPECT_EQ(selections(1).size(), 1u);
    EXPECT_EQ(statusOf(first), SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(second), SCARD_W_RESET_CARD);
    EXPECT_EQ(SCardEndTransaction(first, SCARD_LEAVE_CARD), SCARD_E_NOT_TRANSACTED);

    // A transaction ends with its handle's disconnect: the other handle's
    // begin, which waited for it, goes through.
    DWORD active = 0;
    ASSERT_EQ(SCardReconnect(second, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0, SCARD_LEAVE_CARD, &active),
              SCARD_S_SUCCESS);
    ASSERT_EQ(SCardBeginTransaction(first), SCARD_S_SUCCESS);
    std::atomic<bool> begun{false};
    std::thread waiter([&] {
        EXPECT_EQ(SCardBeginTransaction(second), SCARD_S_SUCCESS);
        begun = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(begun);
    EXPECT_EQ(SCardDisconnect(first, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    waiter.join();
    EXPECT_TRUE(begun);
    EXPECT_EQ(SCardEndTransaction(second, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
}

// A forked child inherits the parent's memory, not its contexts or handles,
// and not a lock that another thread held at the fork: here a thread is in
// the middle of a log entry when the host forks, and the child's calls,
// which write entries too, must not wait for it for ever.
TEST_F(ConnectionsTest, AForkedChildCannotUseItsParentsValues)
{
    startRack({atrT0ThenT1()});
    SCARDHANDLE handle = connectTo("Tessel A1 R1");
    const SCARDCONTEXT context = testContext();
    std::atomic<bool> writing{false};
    std::thread writer([&writing] {
        std::lock_guard<platform::ExclusiveLock> entry(g_logLock);
        writing = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    });
    while (!writing) std::this_thread::yield();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // A child that hangs is killed and counts as a failure.
        alarm(20);
        int failures = 0;
        if (SCardIsValidContext(context) != SCARD_E_INVALID_HANDLE) failures |= 1;
        if (SCardStatusA(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != SCARD_E_INVALID_HANDLE)
            failures |= 2;
        if (SCardDisconnect(handle, SCARD_LEAVE_CARD) != SCARD_E_INVALID_HANDLE) failures |= 4;
        SCARD_READERSTATEA state{};
        state.szReader = "Tessel A1 R1";
        if (SCardGetStatusChangeA(context, 0, &state, 1) != SCARD_E_INVALID_HANDLE) failures |= 8;
        _exit(failures);
    }
    writer.join();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The parent's own values still work.
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    EXPECT_EQ(statusOf(handle), SCARD_S_SUCCESS);
}

}  // namespace
}  // namespace pcsc_test
