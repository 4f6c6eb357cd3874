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

constexpr DWORD kEmptySeen = SCARD_STATE_CHANGED | SCARD_STATE_EMPTY;
constexpr DWORD kPresentSeen = SCARD_STATE_CHANGED | SCARD_STATE_PRESENT;
constexpr DWORD kMuteSeen = SCARD_STATE_CHANGED | SCARD_STATE_PRESENT | SCARD_STATE_MUTE;
constexpr char kPnp[] = "\\\\?PnP?\\Notification";
constexpr DWORD kThreeReaders = 3u << 16;

class StatusChangeTest : public OneRackTest {
protected:
    // R1 empty, R2 a card with a T=1 ATR, R3 a card that turns mute.
    void startThreeReaders() { startRack({{}, atrOnlyT1(), atrOnlyT1()}, 3); }

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

    EXPECT_EQ(SCardGetStatusChangeA(0, 0, nullptr, 0), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardGetStatusChangeA(0, 0, nullptr, 2), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(logText(), "SCardGetStatusChangeA\nSCardGetStatusChangeA\n");

    // Every record ignored: success at once, nothing cleared.
    SCARD_READERSTATEA ignored[2] = {record("Tessel A1 R1", SCARD_STATE_IGNORE),
                                     record("no such reader", SCARD_STATE_IGNORE)};
    EXPECT_EQ(SCardGetStatusChangeA(0, INFINITE, ignored, 2), SCARD_S_SUCCESS);
    EXPECT_EQ(ignored[0].dwEventState, 0xABCDu);
    EXPECT_EQ(ignored[1].dwEventState, 0xABCDu);

    // An ignored record with an unknown name fails the whole call; the
    // narrow form traces each name it checks.
    clearLog();
    SCARD_READERSTATEA mixed[3] = {record("Tessel A1 R1", SCARD_STATE_UNAWARE),
                                   record("no such reader", SCARD_STATE_IGNORE),
                                   record("Tessel A1 R2", SCARD_STATE_UNAWARE)};
    EXPECT_EQ(SCardGetStatusChangeA(0, 0, mixed, 3), SCARD_E_UNKNOWN_READER);
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
    EXPECT_EQ(SCardGetStatusChangeW(0, 0, &wide, 1), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(wide.dwEventState, 0xABCDu);
    EXPECT_EQ(logText(), "SCardGetStatusChangeW\n");

    // A null name is refused instead of read.
    SCARD_READERSTATEA unnamed = record("x", SCARD_STATE_UNAWARE);
    unnamed.szReader = nullptr;
    EXPECT_EQ(SCardGetStatusChangeA(0, 0, &unnamed, 1), SCARD_E_INVALID_PARAMETER);
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
    const Row rows[4] = {{"Tessel A1 R1", SCARD_STATE_UNAWARE, kEmptySeen, 0},
                         {"Tessel A1 R2", SCARD_STATE_UNAWARE, kPresentSeen, 3},
                         {"Tessel A1 R3", SCARD_STATE_UNAWARE, kMuteSeen, 0},
                         {"Tessel A1 R2", SCARD_STATE_IGNORE, 0, 99}};
    auto check = [&](const auto& got, const Row& row, size_t i) {
        EXPECT_EQ(got.dwEventState, row.seen) << i;
        ASSERT_EQ(got.cbAtr, row.atrLength) << i;
        if (row.atrLength == 3) {
            EXPECT_EQ(std::vector<uint8_t>(got.rgbAtr, got.rgbAtr + 3), atrOnlyT1()) << i;
            EXPECT_EQ(got.rgbAtr[3], 0xEE) << i << ": bytes behind the ATR keep what the host left";
        }
    };

    SCARD_READERSTATEA narrow[4];
    for (size_t i = 0; i < 4; ++i) narrow[i] = record(rows[i].name, rows[i].known);
    EXPECT_EQ(SCardGetStatusChangeA(0, INFINITE, narrow, 4), SCARD_S_SUCCESS);
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
    EXPECT_EQ(SCardGetStatusChangeW(0, 0, wide, 16), SCARD_S_SUCCESS);
    for (size_t i = 0; i < 16; ++i) check(wide[i], rows[i % 4], i);
}

TEST_F(StatusChangeTest, AStateTheHostKnowsTimesOutWithTheLastPassInTheRecords)
{
    startThreeReaders();

    // Timeout 0: one pass, then the time-out.
    SCARD_READERSTATEA empty = record("Tessel A1 R1", kEmptySeen);
    EXPECT_EQ(SCardGetStatusChangeA(0, 0, &empty, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(empty.dwEventState, kEmptySeen);
    EXPECT_EQ(empty.cbAtr, 0u);

    // Flags other than EMPTY, PRESENT and MUTE play no part.
    SCARD_READERSTATEA odd = record("Tessel A1 R2", SCARD_STATE_UNKNOWN);
    EXPECT_EQ(SCardGetStatusChangeA(0, 100, &odd, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(odd.dwEventState, kPresentSeen);

    // A mute card does not end a wait that expects a present card...
    SCARD_READERSTATEA present = record("Tessel A1 R3", kPresentSeen);
    EXPECT_EQ(SCardGetStatusChangeA(0, 100, &present, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(present.dwEventState, kMuteSeen);
    // ...but a host that knows it is mute is woken on every call.
    SCARD_READERSTATEA mute = record("Tessel A1 R3", kMuteSeen);
    EXPECT_EQ(SCardGetStatusChangeA(0, INFINITE, &mute, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardGetStatusChangeA(0, INFINITE, &mute, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(mute.dwEventState, kMuteSeen);

    // An INFINITE wait ends after one minute of library time, most of which
    // has passed. Where DWORD is 64 bits wide, a time-out past 32 bits is
    // taken as INFINITE, not cut to its low bits (here 100 ms).
    std::vector<DWORD> infinite{INFINITE};
    if (sizeof(DWORD) > 4) infinite.push_back(static_cast<DWORD>((uint64_t{1} << 32) + 100));
    for (DWORD timeout : infinite) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(SCardGetStatusChangeA(0, timeout, &empty, 1), SCARD_E_TIMEOUT);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(55000 / kTimeScale)) << timeout;
        EXPECT_EQ(empty.dwEventState, kEmptySeen);
    }
}

TEST_F(StatusChangeTest, AHostIsWokenWhenACardComesAndWhenItGoes)
{
    startThreeReaders();

    // Two records, of which only the empty one will differ: both come back
    // marked as changed.
    SCARD_READERSTATEA states[2] = {record("Tessel A1 R1", kEmptySeen), record("Tessel A1 R2", kPresentSeen)};
    std::thread inserter([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        insertCard(device_, 1, atrT0ThenT1());
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SCardGetStatusChangeA(0, INFINITE, states, 2), SCARD_S_SUCCESS);
    // Woken by the card event, not at the end of its limit (6 s here).
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    inserter.join();
    EXPECT_EQ(states[0].dwEventState, kPresentSeen);
    ASSERT_EQ(states[0].cbAtr, 4u);
    EXPECT_EQ(std::vector<uint8_t>(states[0].rgbAtr, states[0].rgbAtr + 4), atrT0ThenT1());
    EXPECT_EQ(states[1].dwEventState, kPresentSeen);

    // The host copies what it saw and waits again: the card leaves.
    states[0].dwCurrentState = states[0].dwEventState;
    std::thread remover([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        rackSimRemoveCard(device_, 1);
    });
    EXPECT_EQ(SCardGetStatusChangeA(0, INFINITE, states, 1), SCARD_S_SUCCESS);
    remover.join();
    EXPECT_EQ(states[0].dwEventState, kEmptySeen);
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
        ASSERT_EQ(SCardGetStatusChangeA(0, 0, &state, 1), SCARD_S_SUCCESS);
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
        EXPECT_EQ(SCardGetStatusChangeA(0, 0, &narrow, 1), row.result) << row.name << " " << row.known;
        EXPECT_EQ(narrow.dwEventState, row.seen) << row.name << " " << row.known;

        const std::wstring wideName = widen(row.name);
        SCARD_READERSTATEW wide;
        std::memset(&wide, 0, sizeof wide);
        wide.szReader = wideName.c_str();
        wide.dwCurrentState = row.known;
        wide.dwEventState = 0xABCD;
        EXPECT_EQ(SCardGetStatusChangeW(0, 0, &wide, 1), row.result) << row.name << " " << row.known;
        EXPECT_EQ(wide.dwEventState, row.seen) << row.name << " " << row.known;
    }
}

// A plug-and-play client: it probes the pseudo-reader with a zeroed record
// and no wait, watches every reader and the pseudo-reader, sees a card
// arrive, and is stopped by SCardCancel from another thread.
TEST_F(StatusChangeTest, APlugAndPlayClientSeesACardAndIsStoppedByCancel)
{
    startThreeReaders();
    const SCARDCONTEXT context = 77;

    SCARD_READERSTATEA probe;
    std::memset(&probe, 0, sizeof probe);
    probe.szReader = kPnp;
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &probe, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(probe.dwEventState & SCARD_STATE_UNKNOWN, 0u) << "plug-and-play is there";
    EXPECT_EQ(probe.dwEventState, kThreeReaders);

    // R3's mute card would wake a host that knows it on every call.
    SCARD_READERSTATEA states[3] = {record("Tessel A1 R1", kEmptySeen), record("Tessel A1 R2", kPresentSeen),
                                    record(kPnp, probe.dwEventState)};
    std::thread inserter([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        insertCard(device_, 1, atrT0ThenT1());
    });
    EXPECT_EQ(SCardGetStatusChangeA(context, INFINITE, states, 3), SCARD_S_SUCCESS);
    inserter.join();
    EXPECT_EQ(states[0].dwEventState, kPresentSeen);
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
    SCARD_READERSTATEA cancelled = record("Tessel A1 R1", kEmptySeen);
    SCARD_READERSTATEA kept = record("Tessel A1 R1", kEmptySeen);
    LONG cancelledResult = 0, keptResult = 0;
    std::thread first = waitInBackground(11, &cancelled, 1, cancelledResult);
    std::thread second = waitInBackground(12, &kept, 1, keptResult);

    SCardCancel(11);
    first.join();
    EXPECT_EQ(cancelledResult, SCARD_E_CANCELLED);

    insertCard(device_, 1, atrT0ThenT1());
    second.join();
    EXPECT_EQ(keptResult, SCARD_S_SUCCESS);
    EXPECT_EQ(kept.dwEventState, kPresentSeen);
}

}  // namespace
}  // namespace pcsc_test
