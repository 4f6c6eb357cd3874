// The fault matrix: every fault the emulator can put on a slot, on a
// device or on a rack's master. Each test shows what the API reports for
// the fault, with the trace where it tells the story, what the fault leaves
// behind in the rack (lock, send queue, mailboxes), and that the library
// goes on serving another reader of the same rack and a second rack.
//
// Library time runs kTimeScale times faster than real time. The write wait
// (120,000 passes of 1 ms) is bounded by the sleep's granularity instead and
// takes several seconds; only the write failure runs it.
#include "robustness_support.h"

#include <atomic>
#include <functional>
#include <regex>
#include <set>
#include <thread>

namespace robustness {
namespace {

using test_support::slotFrame;

// The "Smart card rack ... RX - " trace of a frame from slot 1 of F1.
std::string received(const Bytes& frame) { return "Smart card rack F1 reader 1 RX - " + hexText(frame) + "\n"; }

// Two racks: F1 with three slots, whose first slot gets the faults, and F2
// with two. Every slot holds a T=1 card that echoes each command.
class FaultMatrix : public EchoRackFixture {
protected:
    void SetUp() override
    {
        EchoRackFixture::SetUp();
        faultyDevice_ = echoRack("F1", 3);
        otherDevice_ = echoRack("F2", 2);
        startLibrary(2);
        if (HasFatalFailure()) return;
        rack_ = g_racks[0];
        faulty_ = readerNamed(readerName("F1", 1));
        neighbour_ = readerNamed(readerName("F1", 2));
        ASSERT_NE(faulty_, nullptr);
        ASSERT_NE(neighbour_, nullptr);
        faultyHandle_ = connect(readerName("F1", 1));
        neighbourHandle_ = connect(readerName("F1", 2));
        otherRackHandle_ = connect(readerName("F2", 1));
        // The connects' protocol exchanges are over before the fault goes on.
        ASSERT_TRUE(waitUntil([&] { return settled(faulty_) && settled(neighbour_); }));
        rackSimClearWireLog(faultyDevice_);
        rackSimClearWireLog(otherDevice_);
        clearLog();
    }

    // A command no other exchange of the test sends: its echo can only be
    // the answer to it. Its bytes never hold the sync byte 0x55.
    Bytes nextCommand()
    {
        ++sequence_;
        return {0x00, 0xB0, static_cast<uint8_t>(sequence_), static_cast<uint8_t>(0x20 + sequence_)};
    }

    void expectServed(SCARDHANDLE handle, const char* who)
    {
        Bytes command = nextCommand();
        Exchange e = transmit(handle, command);
        EXPECT_EQ(e.result, SCARD_S_SUCCESS) << who;
        EXPECT_EQ(e.answer(), command) << who;
    }

    // After the fault: the other reader of the rack, the second rack and the
    // faulty slot itself (the fault was for one frame) all exchange again.
    void expectEveryoneServed()
    {
        expectServed(neighbourHandle_, "another reader of the same rack");
        expectServed(otherRackHandle_, "a reader of the second rack");
        expectServed(faultyHandle_, "the reader that had the fault");
    }

    bool settled(Reader* reader) const
    {
        return !rack_->isLocked() && rack_->queuedTurns() == 0 && !reader->statusWaiting();
    }

    // What an exchange that has ended may leave behind: nothing. The rack
    // lock is free, no turn waits, the reader is not blocked and no answer
    // stands in its mailbox for the next exchange to find.
    void expectNothingLeftBehind(Reader* reader)
    {
        EXPECT_FALSE(rack_->isLocked());
        EXPECT_EQ(rack_->queuedTurns(), 0u);
        EXPECT_EQ(reader->blocked(), 0u);
        EXPECT_FALSE(reader->answerWaiting());
    }

    int faultyDevice_ = -1, otherDevice_ = -1;
    Rack* rack_ = nullptr;
    Reader* faulty_ = nullptr;
    Reader* neighbour_ = nullptr;
    SCARDHANDLE faultyHandle_ = 0, neighbourHandle_ = 0, otherRackHandle_ = 0;
    int sequence_ = 0;
};

TEST_F(FaultMatrix, NoAcknowledgeTimesOutAndTheExchangeGivesTheRackLockBack)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_NO_ACK, 1);
    const Bytes command = nextCommand();
    Exchange silent;
    std::atomic<bool> silentDone{false};
    std::thread caller([&] {
        silent = transmit(faultyHandle_, command);
        silentDone = true;
    });
    ASSERT_TRUE(waitUntil([&] { return commandsTo(wireLog(faultyDevice_), 1).size() == 1; }));

    // The silent slot holds F1's lock; F2 has a lock of its own.
    expectServed(otherRackHandle_, "the second rack, while the slot is silent");

    // A command for another slot of F1 waits for its turn behind the lock.
    const Bytes queuedCommand = nextCommand();
    Exchange queued;
    std::thread neighbour([&] { queued = transmit(neighbourHandle_, queuedCommand); });
    ASSERT_TRUE(waitUntil([&] { return rack_->queuedTurns() == 1 || silentDone; }));
    // Read in this order: if the lock is still the silent slot's after the
    // wire was read, it was so the whole time, and nothing may have gone to
    // the other slot meanwhile.
    const size_t sentToNeighbour = commandsTo(wireLog(faultyDevice_), 2).size();
    if (rack_->lockHolder() == faulty_) {
        EXPECT_EQ(sentToNeighbour, 0u) << "sent while the rack was locked";
    }

    caller.join();
    neighbour.join();
    EXPECT_EQ(silent.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(silent.length, 0u);
    EXPECT_TRUE(silent.bufferUntouched());
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {"Tessel F1 R1 Transmit - " + hexText(command) + "\n", "Checkingmatch",
                                       "Tessel F1 R1 Timeout - "}))
        << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("Tessel F1 R1 Timeout - [0-9]+uSec\n"))) << text;
    EXPECT_FALSE(contains(text, received(slotFrame(1, 0x06, {})))) << "no acknowledge came";
    // The queued command went out once the wait gave the lock back.
    EXPECT_EQ(queued.result, SCARD_S_SUCCESS);
    EXPECT_EQ(queued.answer(), queuedCommand);
    EXPECT_EQ(commandsTo(wireLog(faultyDevice_), 2).size(), 1u);
    expectNothingLeftBehind(faulty_);

    // A reconnect with reset to the silent slot powers the card again: the
    // 17 s wait for the slot's answer runs out, the call fails with
    // SCARD_W_UNRESPONSIVE_CARD instead of claiming a powered card, and the
    // lock is given back, with the outgoing mailbox read.
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_NO_ACK, 1);
    DWORD active = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SCardReconnect(faultyHandle_, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, SCARD_RESET_CARD, &active),
              SCARD_W_UNRESPONSIVE_CARD);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(16000 / test_support::kTimeScale));
    EXPECT_FALSE(rack_->isLocked());
    EXPECT_FALSE(faulty_->outgoingWaiting());

    expectEveryoneServed();
    expectNothingLeftBehind(faulty_);
}

TEST_F(FaultMatrix, NoAnswerTimesOutWhileTheBusServesOthersAndTheLateAnswerIsNotTakenForTheNext)
{
    // The card works longer than the 40 s answer wait.
    rackSimSetCardDelayMs(faultyDevice_, 1, 40000 / test_support::kTimeScale + 500);
    const Bytes command = nextCommand();
    Exchange silent;
    std::thread caller([&] { silent = transmit(faultyHandle_, command); });
    // The acknowledge marks the reader as blocked and frees the bus while
    // the card is at work.
    ASSERT_TRUE(waitUntil([&] { return faulty_->blocked() == 1; }));
    expectServed(neighbourHandle_, "another reader of the same rack, during the wait");
    expectServed(otherRackHandle_, "the second rack, during the wait");
    caller.join();

    EXPECT_EQ(silent.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(silent.length, 0u);
    EXPECT_TRUE(silent.bufferUntouched());
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {received(slotFrame(1, 0x06, {})), "Unlocking rack\n"})) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("Tessel F1 R1 Timeout - [0-9]+uSec\n"))) << text;
    expectNothingLeftBehind(faulty_);
    // The late answer lands in the mailbox; the next exchange clears it
    // first and waits for its own.
    ASSERT_TRUE(waitUntil([&] { return faulty_->answerWaiting(); }, std::chrono::seconds(5)));
    rackSimSetCardDelayMs(faultyDevice_, 1, 0);
    expectEveryoneServed();
}

// A fault on one exchange of the faulty slot, which the call survives by
// itself: the call's result and, for a time-out, length 0 and an untouched
// buffer, or else the echo; the trace parts in order for the command sent,
// and parts that must not be there; when given, how many frames reached a
// reader of F1. No reader's card state changes.
using Parts = std::vector<std::string>;
using TraceParts = std::function<Parts(const Bytes& command)>;
struct OneExchangeFault {
    const char* name;
    int fault;
    int cardDelayMs;
    LONG result;
    TraceParts trace;
    TraceParts absent;
    size_t dispatched;
};

void PrintTo(const OneExchangeFault& f, std::ostream* os) { *os << f.name; }

class OneExchange : public FaultMatrix, public ::testing::WithParamInterface<OneExchangeFault> {};

TEST_P(OneExchange, Fault)
{
    const OneExchangeFault& f = GetParam();
    rackSimSetSlotFault(faultyDevice_, 1, f.fault, 1);
    rackSimSetCardDelayMs(faultyDevice_, 1, f.cardDelayMs);
    const Bytes command = nextCommand();
    Exchange e = transmit(faultyHandle_, command);
    rackSimSetCardDelayMs(faultyDevice_, 1, 0);
    const std::string text = logText();

    EXPECT_EQ(e.result, f.result) << text;
    if (f.result == SCARD_S_SUCCESS) {
        EXPECT_EQ(e.answer(), command);
    } else {
        EXPECT_EQ(e.length, 0u);
        EXPECT_TRUE(e.bufferUntouched());
    }
    EXPECT_TRUE(containsInOrder(text, f.trace(command))) << text;
    for (const std::string& part : f.absent ? f.absent(command) : Parts{})
        EXPECT_FALSE(contains(text, part)) << part << " in\n" << text;
    if (f.dispatched != 0) {
        EXPECT_EQ(countOf(text, "Smart card rack F1 reader "), f.dispatched) << text;
    }
    // Whatever the fault's bytes looked like, none reached a reader as a
    // card event.
    for (int a = 1; a <= 3; ++a)
        EXPECT_EQ(readerNamed(readerName("F1", a))->cardState(), static_cast<uint32_t>(kStateCard)) << a;
    expectNothingLeftBehind(faulty_);
    // The next call to the faulty slot gets the answer to its own command,
    // never the one before.
    expectEveryoneServed();
}

// What the slot sends for the command: the acknowledge, and the answer.
Bytes ack() { return slotFrame(1, 0x06, {}); }
Bytes answerTo(const Bytes& command) { return slotFrame(1, 0x04, command); }
std::string answered(const Bytes& command) { return "Tessel F1 R1 Answer - " + hexText(command) + "\n"; }
// The trace of one read from F1.
std::string readOf(const Bytes& stream)
{
    return "Received " + std::to_string(stream.size()) + " bytes from rack F1: " + hexText(stream) + "\n";
}

const OneExchangeFault kOneExchangeFaults[] = {
    // The plain exchange, for the steps its trace shows: the acknowledge
    // frees the lock, the answer ends the call. Nothing times out. The host
    // thread's "Finished write" and "Has sent" can fall anywhere among the
    // receive thread's entries, so only the steps that cause one another are
    // held to their order here.
    {"WithoutAFaultEachStepIsTraced", RACKSIM_SLOT_OK, 0, SCARD_S_SUCCESS,
     [](const Bytes& c) -> Parts {
         return {"Tessel F1 R1 Transmit - " + hexText(c) + "\n", received(ack()), "Unlocking rack\n",
                 received(answerTo(c)), answered(c)};
     },
     [](const Bytes&) -> Parts { return {"Timeout", "ACK missed by"}; }, 2},
    // The answer frame itself frees the lock: no acknowledge is handled.
    {"LostAcknowledgeStillDeliversTheAnswer", RACKSIM_ACK_LOST, 0, SCARD_S_SUCCESS,
     [](const Bytes& c) -> Parts { return {received(answerTo(c)), "Tessel F1 R1: unlocked\n", answered(c)}; },
     [](const Bytes&) -> Parts { return {"Unlocking rack\n", "ACK missed by"}; }, 0},
    // The first entry has no line end; the answer line runs on behind it,
    // unless an entry of the rack's own threads falls in between.
    // An empty status frame of an enumerated rack is no card event.
    {"EmptyAnswerEndsLikeATimeOut", RACKSIM_EMPTY_ANSWER, 0, SCARD_E_TIMEOUT,
     [](const Bytes&) -> Parts {
         return {received(ack()), received(slotFrame(1, 0x04, {})), "Tessel F1 R1 1C/1D Timeout",
                 "Tessel F1 R1 Answer - \n"};
     },
     nullptr, 0},
    // Acknowledge, garbage and answer come in one read. The acknowledge is
    // dispatched; the rest has no sync byte at its head, and in the same
    // poll the sync search drops the garbage and the answer is dispatched,
    // without waiting for the watchdog. No other frame is dispatched.
    {"GarbageBeforeTheAnswerIsDroppedAndTheAnswerDelivered", RACKSIM_GARBAGE, 0, SCARD_S_SUCCESS,
     [](const Bytes& c) -> Parts {
         Bytes stream = ack();
         for (const Bytes& part : {Bytes{0xFE, 0x00, 0x13, 0xAA, 0x7F}, answerTo(c)})
             stream.insert(stream.end(), part.begin(), part.end());
         return {readOf(stream), received(ack()), "Should copy bytes back\n", received(answerTo(c)),
                 "Tessel F1 R1: unlocked\n", answered(c)};
     },
     [](const Bytes&) -> Parts { return {"messages confused, fixing\n", "bStatus invalid"}; }, 2},
    // The same garbage, but the card works a moment, so that the acknowledge
    // comes in one read and garbage and answer in the next. The sync search
    // drops the garbage and brings the whole answer to the head of the
    // buffer, where it must be dispatched: nothing else may come on the line.
    {"GarbageAfterTheAcknowledgeStillDeliversTheAnswerToItsOwnCall", RACKSIM_GARBAGE, 20, SCARD_S_SUCCESS,
     [](const Bytes& c) -> Parts { return {received(ack()), received(answerTo(c)), answered(c)}; },
     nullptr, 0},
    // The acknowledge and the cut frame come in one read. The acknowledge is
    // dispatched, the cut frame waits for its missing bytes, and the
    // watchdog gives it up once the link has been quiet for a second.
    {"TruncatedAnswerIsGivenUpByTheWatchdogAndTimesOut", RACKSIM_TRUNCATED, 0, SCARD_E_TIMEOUT,
     [](const Bytes& c) -> Parts {
         const Bytes whole = answerTo(c);
         Bytes stream = ack();
         stream.insert(stream.end(), whole.begin(), whole.end() - 2);
         return {readOf(stream), "2ND MESSAGE NOT COMPLETE\n", "Should copy bytes back\n",
                 "messages confused, fixing\n", "Tessel F1 R1 Timeout - "};
     },
     [](const Bytes& c) -> Parts {  // the cut frame reaches no reader
         const Bytes whole = answerTo(c);
         return {received(Bytes(whole.begin(), whole.end() - 2))};
     },
     0},
    // The checksum of a received frame is never tested.
    {"WrongChecksumIsNotTestedAndTheAnswerDelivered", RACKSIM_BAD_CHECKSUM, 0, SCARD_S_SUCCESS,
     [](const Bytes& c) -> Parts {
         Bytes frame = answerTo(c);
         frame.back() = static_cast<uint8_t>(frame.back() + 1);
         return {received(ack()), received(frame)};
     },
     nullptr, 0},
    // 1,606 bytes never fit the 1,511 that the receive path can assemble.
    {"OversizedAnswerIsGivenUpAndTheLinkRecovers", RACKSIM_OVERSIZED, 0, SCARD_E_TIMEOUT,
     [](const Bytes&) -> Parts { return {"messages confused, fixing\n", "Tessel F1 R1 Timeout - "}; },
     nullptr, 0},
};

INSTANTIATE_TEST_SUITE_P(FaultMatrix, OneExchange, ::testing::ValuesIn(kOneExchangeFaults),
                         [](const ::testing::TestParamInfo<OneExchangeFault>& info) { return info.param.name; });

// A write that fails gives the rack lock back at once and drops its turn:
// the caller learns of it without waiting out the write wait, a command
// queued behind it goes out, and the rack is not lost, since its polls
// still succeed between the failed writes.
TEST_F(FaultMatrix, WriteFailureFreesTheLockAndEndsOnlyItsOwnExchange)
{
    rackSimSetDeviceFault(faultyDevice_, RACKSIM_WRITE_FAILS, 1);
    const Bytes command = nextCommand();
    Exchange failed = transmit(faultyHandle_, command, 16);
    EXPECT_EQ(failed.result, SCARD_E_NOT_TRANSACTED);
    EXPECT_EQ(failed.length, 16u) << "the length is not written";
    EXPECT_TRUE(failed.bufferUntouched());
    EXPECT_EQ(rackSimCounter(faultyDevice_, RACKSIM_WRITE_FAILURES), 1);
    EXPECT_FALSE(rack_->isLocked());
    EXPECT_EQ(rack_->queuedTurns(), 0u);
    expectServed(otherRackHandle_, "the second rack, while writes to the first fail");
    rackSimSetDeviceFault(faultyDevice_, RACKSIM_WRITE_FAILS, 0);

    EXPECT_TRUE(commandsTo(wireLog(faultyDevice_), 1).empty());
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {"Tessel F1 R1 Transmit - " + hexText(command) + "\n", "FT_Write failed - 4",
                                       "Finished write\n", "Tessel F1 R1 : write failed\n"}))
        << text.substr(0, 2000);
    EXPECT_FALSE(contains(text, "Tessel F1 R1 Tx - "));
    EXPECT_FALSE(contains(text, "Rack F1 lost")) << "a failed write between good polls is no loss";
    EXPECT_TRUE(faulty_->available());
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

// ---- Racks that go and come back -------------------------------------------

// Names in the reader list, in order. The list may grow between the size
// query and the fill while a rack comes up; then it is asked again.
std::vector<std::string> listedReaders(SCARDCONTEXT context = 0)
{
    if (context == 0) context = pcsc_test::testContext();
    std::string all;
    LONG filled = SCARD_E_INSUFFICIENT_BUFFER;
    while (filled == SCARD_E_INSUFFICIENT_BUFFER) {
        DWORD size = 0;
        if (SCardListReadersA(context, nullptr, nullptr, &size) != SCARD_S_SUCCESS) return {};
        all.assign(size, '\0');
        filled = SCardListReadersA(context, nullptr, &all[0], &size);
    }
    if (filled != SCARD_S_SUCCESS) return {};
    std::vector<std::string> names;
    for (size_t at = 0; at < all.size() && all[at] != '\0'; at = all.find('\0', at) + 1) names.push_back(all.c_str() + at);
    return names;
}

bool listedOnceEach(const std::vector<std::string>& names)
{
    std::vector<std::string> sorted = names;
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

// The pseudo-reader's count, seen by a host that knows `known`.
DWORD pnpCount(DWORD known = 0)
{
    SCARD_READERSTATEA pnp{};
    pnp.szReader = "\\\\?PnP?\\Notification";
    pnp.dwCurrentState = known << 16;
    SCardGetStatusChangeA(pcsc_test::testContext(), 0, &pnp, 1);
    return pnp.dwEventState >> 16;
}

// While the test runs, a thread exchanges with the second rack without
// pause: every exchange must succeed with its own echo.
class NeighbourTraffic {
public:
    explicit NeighbourTraffic(SCARDHANDLE handle)
        : thread_([this, handle] {
              for (uint8_t n = 0; !stop_; ++n) {
                  const Bytes command{0x00, 0xB2, n, static_cast<uint8_t>(n ^ 0x0F)};
                  Exchange e = transmit(handle, command);
                  if (e.result == SCARD_S_SUCCESS && e.answer() == command)
                      ++served_;
                  else
                      ++failed_;
              }
          })
    {
    }
    ~NeighbourTraffic() { stop(); }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    int served() const { return served_; }
    int failed() const { return failed_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> served_{0}, failed_{0};
    std::thread thread_;
};

// A generous bound for a call that must end promptly: no speed is asserted.
constexpr auto kPromptly = std::chrono::seconds(5);

// Unplugged with an exchange in flight: the rack is lost once, its readers
// leave the listing, report unavailable and refuse connects, open handles
// learn their reader went, and the second rack goes on throughout. Plugged
// back, the rack is found by the search, opened, reset and enumerated: the
// same reader objects come back under the same names, once each, with fresh
// card states.
TEST_F(FaultMatrix, UnpluggedRackIsLostAndComesBackInPlace)
{
    const std::vector<std::string> before = listedReaders();
    ASSERT_EQ(before.size(), 5u);
    const DWORD countBefore = pnpCount();
    EXPECT_EQ(countBefore, 5u);
    SCARD_READERSTATEA seen{};
    seen.szReader = "Tessel F1 R1";
    seen.dwCurrentState = SCARD_STATE_UNAWARE;
    ASSERT_EQ(SCardGetStatusChangeA(pcsc_test::testContext(), 0, &seen, 1), SCARD_S_SUCCESS);
    seen.dwCurrentState = seen.dwEventState & ~SCARD_STATE_CHANGED;

    NeighbourTraffic traffic(otherRackHandle_);
    // The card works long enough that the exchange is in flight when the
    // cable goes.
    rackSimSetCardDelayMs(faultyDevice_, 1, 20000);
    Exchange inFlight;
    std::atomic<bool> done{false};
    std::thread caller([&] {
        inFlight = transmit(faultyHandle_, nextCommand());
        done = true;
    });
    ASSERT_TRUE(waitUntil([&] { return faulty_->blocked() == 1; }));
    // A status-change wait that is under way when the rack goes.
    SCARD_READERSTATEA waiting = seen;
    LONG waitResult = 0;
    std::thread watcher(
        [&] { waitResult = SCardGetStatusChangeA(pcsc_test::testContext(), 60000, &waiting, 1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    rackSimUnplug(faultyDevice_);
    EXPECT_TRUE(waitUntil([&] { return done.load(); }, kPromptly)) << "the exchange in flight ended";
    caller.join();
    watcher.join();
    EXPECT_EQ(inFlight.result, SCARD_E_READER_UNAVAILABLE);
    EXPECT_TRUE(inFlight.bufferUntouched());
    EXPECT_EQ(waitResult, SCARD_S_SUCCESS);
    EXPECT_EQ(waiting.dwEventState & (SCARD_STATE_UNAVAILABLE | SCARD_STATE_UNKNOWN | SCARD_STATE_CHANGED),
              DWORD(SCARD_STATE_UNAVAILABLE | SCARD_STATE_UNKNOWN | SCARD_STATE_CHANGED));
    EXPECT_EQ(waiting.dwEventState & (SCARD_STATE_PRESENT | SCARD_STATE_EMPTY), 0u);
    EXPECT_TRUE(rack_->lost());

    // While away.
    EXPECT_EQ(listedReaders(), (std::vector<std::string>{"Tessel F2 R1", "Tessel F2 R2"}));
    EXPECT_EQ(pnpCount(), 2u);
    SCARD_READERSTATEA pnp{};
    pnp.szReader = "\\\\?PnP?\\Notification";
    pnp.dwCurrentState = countBefore << 16;
    EXPECT_EQ(SCardGetStatusChangeA(pcsc_test::testContext(), 0, &pnp, 1), SCARD_S_SUCCESS);
    EXPECT_NE(pnp.dwEventState & SCARD_STATE_CHANGED, 0u);
    SCARDHANDLE refused = 0;
    DWORD active = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SCardConnectA(pcsc_test::testContext(), "Tessel F1 R3", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &refused,
                            &active),
              SCARD_E_READER_UNAVAILABLE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPromptly);
    const LONG onOpenHandle = transmit(neighbourHandle_, nextCommand()).result;
    EXPECT_TRUE(onOpenHandle == SCARD_W_REMOVED_CARD || onOpenHandle == SCARD_E_READER_UNAVAILABLE) << onOpenHandle;
    // Several searches pass while it is away; the loss is traced once.
    std::this_thread::sleep_for(std::chrono::milliseconds(3 * 2000 / test_support::kTimeScale));
    EXPECT_EQ(countOf(logText(), "Rack F1 lost\n"), 1u);
    EXPECT_FALSE(rack_->isLocked());
    EXPECT_EQ(rack_->queuedTurns(), 0u);

    // Back. A host that gives the pseudo-reader no count of its own (as
    // pcsc_scan does) is woken when the readers return, not before.
    SCARD_READERSTATEA arrival{};
    arrival.szReader = "\\\\?PnP?\\Notification";
    arrival.dwCurrentState = SCARD_STATE_UNAWARE;
    LONG arrivalResult = 0;
    std::thread arrivalWatcher(
        [&] { arrivalResult = SCardGetStatusChangeA(pcsc_test::testContext(), 60000, &arrival, 1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    rackSimSetCardDelayMs(faultyDevice_, 1, 0);
    rackSimPlug(faultyDevice_);
    arrivalWatcher.join();
    EXPECT_EQ(arrivalResult, SCARD_S_SUCCESS);
    EXPECT_NE(arrival.dwEventState & SCARD_STATE_CHANGED, 0u);
    EXPECT_GT(arrival.dwEventState >> 16, 2u);
    ASSERT_TRUE(waitUntil([&] { return listedReaders().size() == 5u && rack_->enumerated(); }));
    const std::vector<std::string> after = listedReaders();
    EXPECT_TRUE(listedOnceEach(after));
    EXPECT_EQ(std::set<std::string>(after.begin(), after.end()), std::set<std::string>(before.begin(), before.end()));
    EXPECT_EQ(readerNamed(readerName("F1", 1)), faulty_) << "the same reader object";
    EXPECT_EQ(readerNamed(readerName("F1", 2)), neighbour_);
    EXPECT_EQ(rack_->readers().size(), 3u) << "no reader added twice";
    EXPECT_EQ(g_racks.size(), 2u) << "no second rack for the same serial";
    EXPECT_EQ(pnpCount(), 5u);
    EXPECT_EQ(countOf(logText(), "Rack F1 back\n"), 1u);
    ASSERT_TRUE(waitUntil([&] { return faulty_->cardState() == kStateCard; }));

    // Old handles stay told that their card went; new ones work.
    const LONG oldHandle = transmit(faultyHandle_, nextCommand()).result;
    EXPECT_TRUE(oldHandle == SCARD_W_REMOVED_CARD || oldHandle == SCARD_E_READER_UNAVAILABLE) << oldHandle;
    faultyHandle_ = connect(readerName("F1", 1));
    neighbourHandle_ = connect(readerName("F1", 2));
    traffic.stop();
    EXPECT_GT(traffic.served(), 0) << "the second rack was served throughout";
    EXPECT_EQ(traffic.failed(), 0);
    expectEveryoneServed();
}

// A rack plugged in after load is found by the search and added, raising
// the pseudo-reader's count; a rack that is already up and loses power
// announces its slot map again, and comes up again in place: readers
// matched by address, never listed twice, a slot that left the map
// unavailable.
TEST_F(FaultMatrix, LaterRackIsAddedAndAPowerCycledRackComesUpInPlace)
{
    const int later = echoRack("F3", 2);
    rackSimUnplug(later);
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * 2000 / test_support::kTimeScale));
    EXPECT_EQ(g_racks.size(), 2u) << "not there yet";
    NeighbourTraffic traffic(otherRackHandle_);
    rackSimPlug(later);
    ASSERT_TRUE(waitUntil([&] { return listedReaders().size() == 7u; }));
    EXPECT_EQ(g_racks.size(), 3u);
    EXPECT_EQ(pnpCount(), 7u);
    ASSERT_TRUE(waitUntil([&] { return g_racks[2]->enumerated(); }));
    expectServed(connect(readerName("F3", 2)), "a reader of the rack plugged in later");

    // F1 loses power with slot 3 taken out of its map meanwhile.
    rackSimSetSlotMapByte(faultyDevice_, 3, 0x00);
    rackSimPowerCycle(faultyDevice_);
    ASSERT_TRUE(waitUntil([&] { return listedReaders().size() == 6u && rack_->enumerated(); }));
    const std::vector<std::string> names = listedReaders();
    EXPECT_TRUE(listedOnceEach(names));
    EXPECT_EQ(std::count(names.begin(), names.end(), readerName("F1", 3)), 0);
    EXPECT_EQ(rack_->readers().size(), 3u);
    EXPECT_EQ(readerNamed(readerName("F1", 1)), faulty_);
    EXPECT_FALSE(readerNamed(readerName("F1", 3))->available());
    DWORD active = 0;
    SCARDHANDLE none = 0;
    EXPECT_EQ(SCardConnectA(pcsc_test::testContext(), "Tessel F1 R3", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &none,
                            &active),
              SCARD_E_READER_UNAVAILABLE);
    // The rack forgot its cards' state: handles from before learn it.
    const LONG old = transmit(faultyHandle_, nextCommand()).result;
    EXPECT_EQ(old, SCARD_W_REMOVED_CARD);
    ASSERT_TRUE(waitUntil([&] { return faulty_->cardState() == kStateCard; }));
    faultyHandle_ = connect(readerName("F1", 1));
    neighbourHandle_ = connect(readerName("F1", 2));
    traffic.stop();
    EXPECT_GT(traffic.served(), 0);
    EXPECT_EQ(traffic.failed(), 0);
    expectEveryoneServed();
}

const Bytes kResetFrame{0x55, 0x00, 0x00, 0xF0, 0xBB};
const Bytes kEnumerateFrame{0x55, 0x00, 0x00, 0xC1, 0xEA};
const Bytes kCollectedFrame{0x55, 0x00, 0x00, 0xC2, 0xE9};

using MasterFaults = EchoRackFixture;

// Two racks whose masters stay silent at one step of the bring-up each,
// beside a rack that comes up normally. All three are reset together. Each
// silent rack is given up once its bring-up overruns its limit, traced, and
// tried again by the search; a context neither waits for them nor is
// refused for them.
TEST_F(MasterFaults, SilentMastersAreGivenUpRetriedAndHoldUpNoContext)
{
    const int atEnumeration = echoRack("M1", 2);
    const int atCollection = echoRack("M2", 2);
    const int good = echoRack("G1", 2);
    rackSimSetDeviceFault(atEnumeration, RACKSIM_MASTER_SILENT_ENUMERATE, 1);
    rackSimSetDeviceFault(atCollection, RACKSIM_MASTER_SILENT_COLLECTED, 1);
    KickOff();
    waitForDiscoveryThreads();
    ASSERT_EQ(g_racks.size(), 3u);
    ASSERT_TRUE(waitUntil([&] { return g_racks[2]->enumerated(); }));
    // Reset together: every reset went out before the first enumerate.
    const std::string bringUp = logText();
    EXPECT_TRUE(containsInOrder(bringUp, {"ResettingRack", "ResettingRack", "ResettingRack", "StartingEnum"}))
        << bringUp.substr(0, 2000);
    EXPECT_EQ(wireLog(good).front(), kResetFrame);

    // Establish returns once the silent racks are given up, well before its
    // own limit of 15 s, which it no longer waits out.
    SCARDCONTEXT context = 0xFFFFFFFF;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15000 / test_support::kTimeScale));
    EXPECT_EQ(SCardIsValidContext(context), SCARD_S_SUCCESS);
    for (SCARDCONTEXT any : {SCARDCONTEXT(0), SCARDCONTEXT(777777)})
        EXPECT_EQ(SCardIsValidContext(any), SCARD_E_INVALID_HANDLE) << any;
    ASSERT_TRUE(waitUntil([&] {
        const std::string text = logText();
        return contains(text, "Rack M1 bring-up failed\n") && contains(text, "Rack M2 bring-up failed\n");
    }));
    EXPECT_TRUE(g_racks[0]->everLost());
    EXPECT_TRUE(g_racks[1]->everLost());
    EXPECT_FALSE(g_racks[2]->everLost());

    // Tried again: opened, reset and asked for the slot map once more.
    ASSERT_TRUE(waitUntil([&] { return rackSimCounter(atEnumeration, RACKSIM_OPENS) >= 2; }));
    ASSERT_TRUE(waitUntil([&] {
        const std::vector<Bytes> wire = wireLog(atEnumeration);
        return std::count(wire.begin(), wire.end(), kEnumerateFrame) >= 2;
    }));
    // The rack without a slot map never has readers; the good rack's are
    // listed once each, whatever state the retried rack is in.
    const std::vector<std::string> names = listedReaders(context);
    EXPECT_TRUE(listedOnceEach(names));
    EXPECT_EQ(std::count(names.begin(), names.end(), "Tessel M1 R1"), 0);
    EXPECT_EQ(std::count(names.begin(), names.end(), "Tessel G1 R1"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "Tessel G1 R2"), 1);
    EXPECT_EQ(g_racks[0]->readers().size(), 0u);
    EXPECT_LE(g_racks[1]->readers().size(), 2u) << "a retried rack's readers are never added twice";

    const Bytes command{0x00, 0xCA, 0x01, 0x02};
    Exchange e = transmit(connect("Tessel G1 R2"), command);
    EXPECT_EQ(e.result, SCARD_S_SUCCESS);
    EXPECT_EQ(e.answer(), command);
    SCardReleaseContext(context);
}

}  // namespace
}  // namespace robustness
