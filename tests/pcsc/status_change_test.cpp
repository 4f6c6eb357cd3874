// Status change: the checks before the wait, the record table, waiting for
// a card to come, go or turn mute, the time-outs, whole ATRs while the
// status thread stores new ones, the plug-and-play pseudo-reader and
// SCardCancel.
#include "pcsc_test_support.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <thread>

namespace pcsc_test {
namespace {

// The flags of a record without its event count (the high 16 bits).
constexpr DWORD kEmpty = SCARD_STATE_EMPTY;
constexpr DWORD kPresent = SCARD_STATE_PRESENT;
constexpr DWORD kMute = SCARD_STATE_PRESENT | SCARD_STATE_MUTE;
constexpr DWORD kChanged = SCARD_STATE_CHANGED;
inline DWORD flagsOf(DWORD state) { return state & 0xFFFF; }
inline DWORD eventCountOf(DWORD state) { return (state >> 16) & 0xFFFF; }
constexpr char kPnp[] = "\\\\?PnP?\\Notification";
constexpr DWORD kThreeReaders = 3u << 16;

class StatusChangeTest : public OneRackTest {
protected:
    // R1 empty, R2 a card with a T=1 ATR, R3 a card that turns mute.
    void startThreeReaders() { startRack({{}, atrOnlyT1(), atrOnlyT1()}, 3); }

    SCARDCONTEXT ctx() { return testContext(); }
    uint32_t eventsOf(int address) { return readerNamed(readerName("A1", address))->eventCount() & 0xFFFF; }

    SCARD_READERSTATEA record(const std::string& name, DWORD known)
    {
        names_.push_back(name);
        SCARD_READERSTATEA state;
        std::memset(&state, 0, sizeof state);
        state.szReader = names_.back().c_str();
        state.dwCurrentState = known;
        state.dwEventState = 0xABCD;
        state.cbAtr = 99;
        std::memset(state.rgbAtr, 0xEE, sizeof state.rgbAtr);
        return state;
    }

    // Waits on another thread, once its call is in the log and so can be
    // cancelled; `result` is set when it returns.
    std::thread waitInBackground(SCARDCONTEXT context, SCARD_READERSTATEA* states, DWORD count, LONG& result)
    {
        const size_t before = countOf(logText(), "SCardGetStatusChangeA\n");
        std::thread waiter([=, &result] { result = SCardGetStatusChangeA(context, INFINITE, states, count); });
        EXPECT_TRUE(waitUntil([&] { return countOf(logText(), "SCardGetStatusChangeA\n") > before; }));
        return waiter;
    }

    std::deque<std::string> names_;
};

TEST_F(StatusChangeTest, ChecksBeforeTheWaitLeaveTheRecordsAsTheyCame)
{
    startThreeReaders();

    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, nullptr, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, nullptr, 2), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "SCardGetStatusChangeA\nSCardGetStatusChangeA\n");

    // Every record ignored: success at once, nothing cleared.
    SCARD_READERSTATEA ignored[2] = {record("Tessel A1 R1", SCARD_STATE_IGNORE),
                                     record("no such reader", SCARD_STATE_IGNORE)};
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), INFINITE, ignored, 2), SCARD_S_SUCCESS);
    EXPECT_EQ(ignored[0].dwEventState, 0xABCDu);
    EXPECT_EQ(ignored[1].dwEventState, 0xABCDu);

    // An ignored record with an unknown name fails the whole call; the
    // narrow form traces each name it checks.
    clearLog();
    SCARD_READERSTATEA mixed[3] = {record("Tessel A1 R1", SCARD_STATE_UNAWARE),
                                   record("no such reader", SCARD_STATE_IGNORE),
                                   record("Tessel A1 R2", SCARD_STATE_UNAWARE)};
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, mixed, 3), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(logText(), "SCardGetStatusChangeA\nTessel A1 R1\nno such reader\nReader doesn't exist");
    for (const auto& r : mixed) {
        EXPECT_EQ(r.dwEventState, 0xABCDu);
        EXPECT_EQ(r.cbAtr, 99u);
    }

    // A name is compared exactly, case included. The wide form traces
    // nothing but its entry.
    clearLog();
    std::wstring lower = L"tessel A1 R1";
    SCARD_READERSTATEW wide;
    std::memset(&wide, 0, sizeof wide);
    wide.szReader = lower.c_str();
    wide.dwEventState = 0xABCD;
    EXPECT_EQ(SCardGetStatusChangeW(ctx(), 0, &wide, 1), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(wide.dwEventState, 0xABCDu);
    EXPECT_EQ(logText(), "SCardGetStatusChangeW\n");

    // A null name is refused instead of read.
    SCARD_READERSTATEA unnamed = record("x", SCARD_STATE_UNAWARE);
    unnamed.szReader = nullptr;
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &unnamed, 1), SCARD_E_INVALID_PARAMETER);

    // A context never handed out: refused before anything is looked at.
    SCARD_READERSTATEA any = record("Tessel A1 R1", SCARD_STATE_UNAWARE);
    EXPECT_EQ(SCardGetStatusChangeA(424242, 0, &any, 1), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(any.dwEventState, 0xABCDu);
}

// One table of records for both forms: unaware records get the state of
// their readers after one pass; an ignored record is cleared and not visited.
// The wide form takes the table four times over, record after record.
TEST_F(StatusChangeTest, UnawareRecordsGetTheStateOfTheirReadersAfterOnePass)
{
    startThreeReaders();
    struct Row {
        const char* name;
        DWORD known, seen, atrLength;
    };
    const Row rows[4] = {{"Tessel A1 R1", SCARD_STATE_UNAWARE, kChanged | kEmpty, 0},
                         {"Tessel A1 R2", SCARD_STATE_UNAWARE, kChanged | kPresent, 3},
                         {"Tessel A1 R3", SCARD_STATE_UNAWARE, kChanged | kMute, 0},
                         {"Tessel A1 R2", SCARD_STATE_IGNORE, 0, 99}};
    auto check = [&](const auto& got, const Row& row, size_t i) {
        EXPECT_EQ(flagsOf(got.dwEventState), row.seen) << i;
        // The reader's count of card events rides in the high 16 bits.
        if (row.known != SCARD_STATE_IGNORE) {
            EXPECT_EQ(eventCountOf(got.dwEventState), eventsOf(row.name[11] - '0')) << i;
        }
        ASSERT_EQ(got.cbAtr, row.atrLength) << i;
        if (row.atrLength == 3) {
            EXPECT_EQ(std::vector<uint8_t>(got.rgbAtr, got.rgbAtr + 3), atrOnlyT1()) << i;
            EXPECT_EQ(got.rgbAtr[3], 0xEE) << i << ": bytes behind the ATR keep what the host left";
        }
    };

    SCARD_READERSTATEA narrow[4];
    for (size_t i = 0; i < 4; ++i) narrow[i] = record(rows[i].name, rows[i].known);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), INFINITE, narrow, 4), SCARD_S_SUCCESS);
    for (size_t i = 0; i < 4; ++i) check(narrow[i], rows[i], i);
    EXPECT_EQ(logText(), "SCardGetStatusChangeA\nTessel A1 R1\nTessel A1 R2\nTessel A1 R3\nTessel A1 R2\n");

    std::deque<std::wstring> wideNames;
    SCARD_READERSTATEW wide[16];
    for (size_t i = 0; i < 16; ++i) {
        const SCARD_READERSTATEA from = record(rows[i % 4].name, rows[i % 4].known);
        std::memcpy(wide[i].rgbAtr, from.rgbAtr, sizeof wide[i].rgbAtr);
        wideNames.push_back(widen(rows[i % 4].name));
        wide[i].szReader = wideNames.back().c_str();
        wide[i].pvUserData = nullptr;
        wide[i].dwCurrentState = from.dwCurrentState;
        wide[i].dwEventState = from.dwEventState;
        wide[i].cbAtr = from.cbAtr;
    }
    EXPECT_EQ(SCardGetStatusChangeW(ctx(), 0, wide, 16), SCARD_S_SUCCESS);
    for (size_t i = 0; i < 16; ++i) check(wide[i], rows[i % 4], i);
}

// CHANGED marks only a record that differs from what the host knows; a
// host that feeds back what it saw waits, a mute card included.
TEST_F(StatusChangeTest, AStateTheHostKnowsTimesOutWithTheLastPassInTheRecords)
{
    startThreeReaders();

    // Timeout 0: one pass, then the time-out, and no CHANGED.
    SCARD_READERSTATEA empty = record("Tessel A1 R1", kEmpty);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &empty, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(flagsOf(empty.dwEventState), kEmpty);
    EXPECT_EQ(empty.cbAtr, 0u);

    // Flags outside the card and the connections play no part.
    SCARD_READERSTATEA odd = record("Tessel A1 R2", kPresent | SCARD_STATE_UNAVAILABLE | SCARD_STATE_ATRMATCH);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 100, &odd, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(flagsOf(odd.dwEventState), kPresent);

    // A mute card is a change to a host that expects a plain present card;
    // a host that knows it is mute and feeds back what it saw waits.
    SCARD_READERSTATEA mute = record("Tessel A1 R3", kPresent);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 100, &mute, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(flagsOf(mute.dwEventState), kChanged | kMute);
    mute.dwCurrentState = mute.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 100, &mute, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(flagsOf(mute.dwEventState), kMute);

    // INFINITE has no limit: the wait goes on until it is cancelled. Where
    // DWORD is 64 bits wide, a time-out past 32 bits is taken as INFINITE,
    // not cut to its low bits (here 100 ms).
    std::vector<DWORD> infinite{INFINITE};
    if (sizeof(DWORD) > 4) infinite.push_back(static_cast<DWORD>((uint64_t{1} << 32) + 100));
    for (DWORD timeout : infinite) {
        std::atomic<bool> returned{false};
        LONG result = 0;
        std::thread waiter([&] {
            result = SCardGetStatusChangeA(ctx(), timeout, &empty, 1);
            returned = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(returned) << timeout;
        SCardCancel(ctx());
        waiter.join();
        EXPECT_EQ(result, SCARD_E_CANCELLED) << timeout;
    }
}

// The count in the high 16 bits moves on with every insertion and removal:
// a host that knows a count sees a card swapped between two calls, even
// though the flags read the same again.
TEST_F(StatusChangeTest, ASwapBetweenTwoCallsIsSeenByTheCount)
{
    startThreeReaders();
    SCARD_READERSTATEA state = record("Tessel A1 R2", SCARD_STATE_UNAWARE);
    ASSERT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_S_SUCCESS);
    const DWORD before = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
    state.dwCurrentState = before;
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_E_TIMEOUT);

    Reader* r2 = readerNamed("Tessel A1 R2");
    const uint32_t events = r2->eventCount();
    rackSimRemoveCard(device_, 2);
    ASSERT_TRUE(waitUntil([&] { return r2->eventCount() == events + 1; }));
    insertCard(device_, 2, atrOnlyT1());
    ASSERT_TRUE(waitUntil([&] { return r2->eventCount() == events + 2; }));

    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(flagsOf(state.dwEventState), kChanged | kPresent);
    EXPECT_EQ(eventCountOf(state.dwEventState), (eventCountOf(before) + 2) & 0xFFFF);
    // A host that gives no count of its own is told by the flags alone.
    state.dwCurrentState = kPresent;
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_E_TIMEOUT);
}

// INUSE and EXCLUSIVE follow this process's connections to the reader.
TEST_F(StatusChangeTest, InUseAndExclusiveFollowTheConnections)
{
    startThreeReaders();
    SCARD_READERSTATEA state = record("Tessel A1 R2", kPresent);
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_E_TIMEOUT);
    SCARDHANDLE shared = connectTo("Tessel A1 R2");
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(flagsOf(state.dwEventState), kChanged | kPresent | SCARD_STATE_INUSE);
    DWORD active = 0;
    ASSERT_EQ(SCardReconnect(shared, SCARD_SHARE_EXCLUSIVE, SCARD_PROTOCOL_T1, SCARD_LEAVE_CARD, &active),
              SCARD_S_SUCCESS);
    state.dwCurrentState = kPresent | SCARD_STATE_INUSE;
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(flagsOf(state.dwEventState), kChanged | kPresent | SCARD_STATE_EXCLUSIVE);
    // A wait for the connection to end is woken by the disconnect.
    state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
    std::thread leaver([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        SCardDisconnect(shared, SCARD_LEAVE_CARD);
    });
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), INFINITE, &state, 1), SCARD_S_SUCCESS);
    leaver.join();
    EXPECT_EQ(flagsOf(state.dwEventState), kChanged | kPresent);
}

TEST_F(StatusChangeTest, AHostIsWokenWhenACardComesAndWhenItGoes)
{
    startThreeReaders();

    // Two records, of which only the empty one will differ: only that one
    // comes back marked as changed.
    SCARD_READERSTATEA states[2] = {record("Tessel A1 R1", kEmpty), record("Tessel A1 R2", kPresent)};
    std::thread inserter([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        insertCard(device_, 1, atrT0ThenT1());
    });
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), INFINITE, states, 2), SCARD_S_SUCCESS);
    inserter.join();
    EXPECT_EQ(flagsOf(states[0].dwEventState), kChanged | kPresent);
    ASSERT_EQ(states[0].cbAtr, 4u);
    EXPECT_EQ(std::vector<uint8_t>(states[0].rgbAtr, states[0].rgbAtr + 4), atrT0ThenT1());
    EXPECT_EQ(flagsOf(states[1].dwEventState), kPresent);

    // The host copies what it saw and waits again: the card leaves.
    states[0].dwCurrentState = states[0].dwEventState & ~DWORD(SCARD_STATE_CHANGED);
    std::thread remover([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        rackSimRemoveCard(device_, 1);
    });
    EXPECT_EQ(SCardGetStatusChangeA(ctx(), INFINITE, states, 1), SCARD_S_SUCCESS);
    remover.join();
    EXPECT_EQ(flagsOf(states[0].dwEventState), kChanged | kEmpty);
    EXPECT_EQ(states[0].cbAtr, 0u);
}

TEST_F(StatusChangeTest, APassNeverSeesTheBytesOfOneAtrWithTheLengthOfAnother)
{
    startThreeReaders();
    const std::vector<uint8_t> shortAtr = {0x3B, 0x80, 0x01};
    const std::vector<uint8_t> longAtr = {0x3B, 0x8F, 0x80, 0x01, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66,
                                          0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xF0, 0x0F};

    // The card in R1 changes again and again while passes read it.
    std::atomic<bool> done{false};
    std::thread swapper([&] {
        for (int i = 0; i < 200 && !done; ++i) {
            insertCard(device_, 1, i % 2 ? longAtr : shortAtr);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            rackSimRemoveCard(device_, 1);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        done = true;
    });
    int seen = 0;
    while (!done) {
        SCARD_READERSTATEA state = record("Tessel A1 R1", SCARD_STATE_UNAWARE);
        ASSERT_EQ(SCardGetStatusChangeA(ctx(), 0, &state, 1), SCARD_S_SUCCESS);
        std::vector<uint8_t> atr(state.rgbAtr, state.rgbAtr + state.cbAtr);
        if (state.cbAtr == 0) continue;
        ++seen;
        ASSERT_TRUE(atr == shortAtr || atr == longAtr) << "torn ATR of length " << state.cbAtr;
    }
    swapper.join();
    EXPECT_GT(seen, 0);
}

// The pseudo-reader names no reader: its record carries the number of
// readers and changes only for a host that knew another number. Alone, it
// runs to the time-out.
TEST_F(StatusChangeTest, ThePseudoReaderReportsTheNumberOfReaders)
{
    startThreeReaders();
    struct Row {
        const char* name;
        DWORD known;
        LONG result;
        DWORD seen;
    };
    const Row rows[] = {
        {kPnp, SCARD_STATE_UNAWARE, SCARD_E_TIMEOUT, kThreeReaders},
        {"\\\\?pnp?\\NOTIFICATION", SCARD_STATE_UNAWARE, SCARD_E_TIMEOUT, kThreeReaders},
        {kPnp, kThreeReaders, SCARD_E_TIMEOUT, kThreeReaders},
        {kPnp, 5u << 16, SCARD_S_SUCCESS, kThreeReaders | SCARD_STATE_CHANGED},
        {"\\\\?PnP?\\Notifications", SCARD_STATE_UNAWARE, SCARD_E_UNKNOWN_READER, 0xABCD},
    };
    for (const Row& row : rows) {
        SCARD_READERSTATEA narrow = record(row.name, row.known);
        EXPECT_EQ(SCardGetStatusChangeA(ctx(), 0, &narrow, 1), row.result) << row.name << " " << row.known;
        EXPECT_EQ(narrow.dwEventState, row.seen) << row.name << " " << row.known;

        const std::wstring wideName = widen(row.name);
        SCARD_READERSTATEW wide;
        std::memset(&wide, 0, sizeof wide);
        wide.szReader = wideName.c_str();
        wide.dwCurrentState = row.known;
        wide.dwEventState = 0xABCD;
        EXPECT_EQ(SCardGetStatusChangeW(ctx(), 0, &wide, 1), row.result) << row.name << " " << row.known;
        EXPECT_EQ(wide.dwEventState, row.seen) << row.name << " " << row.known;
    }
}

// A plug-and-play client: it probes the pseudo-reader with a zeroed record
// and no wait, watches every reader and the pseudo-reader, sees a card
// arrive, and is stopped by SCardCancel from another thread.
TEST_F(StatusChangeTest, APlugAndPlayClientSeesACardAndIsStoppedByCancel)
{
    startThreeReaders();
    SCARDCONTEXT context = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);

    SCARD_READERSTATEA probe;
    std::memset(&probe, 0, sizeof probe);
    probe.szReader = kPnp;
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &probe, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(probe.dwEventState & SCARD_STATE_UNKNOWN, 0u) << "plug-and-play is there";
    EXPECT_EQ(probe.dwEventState, kThreeReaders);

    SCARD_READERSTATEA states[3] = {record("Tessel A1 R1", kEmpty), record("Tessel A1 R2", kPresent),
                                    record(kPnp, probe.dwEventState)};
    std::thread inserter([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        insertCard(device_, 1, atrT0ThenT1());
    });
    EXPECT_EQ(SCardGetStatusChangeA(context, INFINITE, states, 3), SCARD_S_SUCCESS);
    inserter.join();
    EXPECT_EQ(flagsOf(states[0].dwEventState), kChanged | kPresent);
    EXPECT_EQ(states[2].dwEventState, kThreeReaders) << "the readers stay as they were";
    EXPECT_TRUE(containsInOrder(logText(), {"SCardGetStatusChangeA\n", std::string(kPnp) + "\n"}));

    // A cancel with nothing waiting is forgotten: the next wait runs out.
    for (auto& state : states) state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
    EXPECT_EQ(SCardCancel(context), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, states, 3), SCARD_E_TIMEOUT);

    clearLog();
    LONG result = 0;
    std::thread waiter = waitInBackground(context, states, 3, result);
    EXPECT_EQ(SCardCancel(context), SCARD_S_SUCCESS);
    waiter.join();
    EXPECT_EQ(result, SCARD_E_CANCELLED);
    EXPECT_TRUE(containsInOrder(logText(), {"SCardGetStatusChangeA\n", "SCardCancel\n", "Wait cancelled\n"}))
        << logText();
}

// A cancel reaches only the waits of its own context.
TEST_F(StatusChangeTest, ACancelLeavesTheWaitsOfOtherContextsWaiting)
{
    startThreeReaders();
    SCARD_READERSTATEA cancelled = record("Tessel A1 R1", kEmpty);
    SCARD_READERSTATEA kept = record("Tessel A1 R1", kEmpty);
    LONG cancelledResult = 0, keptResult = 0;
    SCARDCONTEXT one = 0, other = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &one), SCARD_S_SUCCESS);
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &other), SCARD_S_SUCCESS);
    std::thread first = waitInBackground(one, &cancelled, 1, cancelledResult);
    std::thread second = waitInBackground(other, &kept, 1, keptResult);

    SCardCancel(one);
    first.join();
    EXPECT_EQ(cancelledResult, SCARD_E_CANCELLED);

    insertCard(device_, 1, atrT0ThenT1());
    second.join();
    EXPECT_EQ(keptResult, SCARD_S_SUCCESS);
    EXPECT_EQ(flagsOf(kept.dwEventState), kChanged | kPresent);

    // Releasing a context ends its waits too.
    LONG releasedResult = 0;
    SCARD_READERSTATEA again = record("Tessel A1 R1", kPresent);
    again.dwCurrentState = kept.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
    std::thread third = waitInBackground(other, &again, 1, releasedResult);
    EXPECT_EQ(SCardReleaseContext(other), SCARD_S_SUCCESS);
    third.join();
    EXPECT_EQ(releasedResult, SCARD_E_CANCELLED);
    SCardReleaseContext(one);
}

}  // namespace
}  // namespace pcsc_test
