// The fault matrix: every fault the emulator can put on a slot, on a
// device or on a rack's master, one test each. Each test shows what the API
// reports for the fault, with the trace where it tells the story, what the
// fault leaves behind in the rack (lock, send queue, mailboxes), and that
// the library goes on serving another reader of the same rack and a second
// rack.
//
// Library time runs 20 times faster than real time here: the answer wait of
// 40 s takes 2 s, a connect to a silent slot 0.9 s, the wait of
// SCardEstablishContext 0.8 s. The write wait (120,000 passes of 1 ms) is
// bounded by the sleep's granularity instead and takes about 15 s; only the
// write failure runs it.
#include "robustness_support.h"

#include <atomic>
#include <regex>
#include <thread>

namespace robustness {
namespace {

using test_support::waitUntil;

// Frames the host wrote to one slot with the command byte 0x40.
std::vector<Bytes> commandsTo(const std::vector<Bytes>& wire, int address)
{
    std::vector<Bytes> frames;
    for (const Bytes& frame : wire)
        if (frame.size() >= 5 && frame[0] == 0x55 && frame[1] == address && frame[3] == 0x40) frames.push_back(frame);
    return frames;
}

// Two racks: F1 with three slots, whose first slot gets the faults, and F2
// with two. Every slot holds a T=1 card that echoes each command.
class FaultMatrix : public test_support::RackFixture {
protected:
    void SetUp() override
    {
        RackFixture::SetUp();
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

    int echoRack(const std::string& serial, int slots)
    {
        int device = addRack(serial, slots);
        for (int a = 1; a <= slots; ++a) {
            insertCard(device, a, test_support::atrT1());
            rackSimSetEcho(device, a);
        }
        return device;
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
        return !rack_->isLocked() && rack_->queuedTurns() == 0 && reader->incoming.unread.load() == 0;
    }

    // What an exchange that has ended may leave behind: nothing. The rack
    // lock is free, no turn waits, the reader is not blocked and no answer
    // stands in its mailbox for the next exchange to find.
    void expectNothingLeftBehind(Reader* reader)
    {
        EXPECT_FALSE(rack_->isLocked());
        EXPECT_EQ(rack_->queuedTurns(), 0u);
        EXPECT_EQ(reader->blocked.load(), 0u);
        EXPECT_EQ(reader->incoming.arrived.load(), 0u);
    }

    // The "Smart card rack ... RX - " trace of a frame from slot 1 of F1.
    static std::string received(const Bytes& frame)
    {
        return "Smart card rack F1 reader 1 RX - " + hexText(frame) + "\n";
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
    if (rack_->lockHolder.load() == faulty_) {
        EXPECT_EQ(sentToNeighbour, 0u) << "sent while the rack was locked";
    }

    caller.join();
    neighbour.join();
    EXPECT_EQ(silent.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(silent.length, 0u);
    EXPECT_TRUE(silent.bufferUntouched());
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {"Tessel F1 R1 Transmit - " + hexText(command) + "\n", "Finished write\n",
                                       "Has sent\n", "Tessel F1 R1 Timeout - "}))
        << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("Tessel F1 R1 Timeout - [0-9]+uSec\n"))) << text;
    EXPECT_FALSE(contains(text, received(test_support::slotFrame(1, 0x06, {})))) << "no acknowledge came";
    // The queued command went out once the wait gave the lock back.
    EXPECT_EQ(queued.result, SCARD_S_SUCCESS);
    EXPECT_EQ(queued.answer(), queuedCommand);
    EXPECT_EQ(commandsTo(wireLog(faultyDevice_), 2).size(), 1u);
    expectNothingLeftBehind(faulty_);

    // A connect to the silent slot runs out its wait for the reply and
    // still succeeds, and gives the lock back too.
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_NO_ACK, 1);
    SCARDHANDLE handle = 0;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(1, "Tessel F1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active),
              SCARD_S_SUCCESS);
    EXPECT_EQ(handle, faultyHandle_);
    EXPECT_EQ(active, static_cast<DWORD>(SCARD_PROTOCOL_T1));
    EXPECT_FALSE(rack_->isLocked());

    expectEveryoneServed();
    expectNothingLeftBehind(faulty_);
}

TEST_F(FaultMatrix, LostAcknowledgeStillDeliversTheAnswer)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_ACK_LOST, 1);
    const Bytes command = nextCommand();
    Exchange e = transmit(faultyHandle_, command);

    EXPECT_EQ(e.result, SCARD_S_SUCCESS);
    EXPECT_EQ(e.answer(), command);
    const std::string text = logText();
    // The answer frame itself freed the lock: no acknowledge was handled.
    EXPECT_TRUE(containsInOrder(text, {received(test_support::slotFrame(1, 0x04, command)), "Tessel F1 R1: unlocked\n"}))
        << text;
    EXPECT_TRUE(contains(text, "Tessel F1 R1 Answer - " + hexText(command) + "\n")) << text;
    EXPECT_FALSE(contains(text, "Unlocking rack\n")) << text;
    EXPECT_FALSE(contains(text, "ACK missed by")) << text;
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, NoAnswerTimesOutWhileTheBusServesOthers)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_NO_ANSWER, 1);
    const Bytes command = nextCommand();
    Exchange silent;
    std::thread caller([&] { silent = transmit(faultyHandle_, command); });
    // The acknowledge marks the reader as blocked and frees the bus while
    // the card is (for ever) at work.
    ASSERT_TRUE(waitUntil([&] { return faulty_->blocked.load() == 1; }));
    expectServed(neighbourHandle_, "another reader of the same rack, during the wait");
    expectServed(otherRackHandle_, "the second rack, during the wait");
    caller.join();

    EXPECT_EQ(silent.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(silent.length, 0u);
    EXPECT_TRUE(silent.bufferUntouched());
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {received(test_support::slotFrame(1, 0x06, {})), "Unlocking rack\n"})) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("Tessel F1 R1 Timeout - [0-9]+uSec\n"))) << text;
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, EmptyAnswerEndsLikeATimeOut)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_EMPTY_ANSWER, 1);
    Exchange e = transmit(faultyHandle_, nextCommand());

    EXPECT_EQ(e.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(e.length, 0u);
    EXPECT_TRUE(e.bufferUntouched());
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {received(test_support::slotFrame(1, 0x04, {})), "Tessel F1 R1 1C/1D Timeout",
                                       "Tessel F1 R1 Answer - \n"}))
        << text;
    // An empty status frame of an enumerated rack is no card event.
    EXPECT_EQ(faulty_->cardState(), static_cast<uint32_t>(kStateCard));
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, GarbageBeforeTheAnswerIsDroppedAndTheAnswerDelivered)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_GARBAGE, 1);
    const Bytes command = nextCommand();
    Exchange e = transmit(faultyHandle_, command);

    EXPECT_EQ(e.result, SCARD_S_SUCCESS);
    EXPECT_EQ(e.answer(), command);
    const Bytes ack = test_support::slotFrame(1, 0x06, {});
    const Bytes garbage{0xFE, 0x00, 0x13, 0xAA, 0x7F};
    const Bytes answer = test_support::slotFrame(1, 0x04, command);
    Bytes stream = ack;
    stream.insert(stream.end(), garbage.begin(), garbage.end());
    stream.insert(stream.end(), answer.begin(), answer.end());
    // Acknowledge, garbage and answer come in one read. The acknowledge is
    // dispatched; the rest has no sync byte at its head, and in the same
    // poll the sync search drops the garbage and the answer is dispatched,
    // without waiting for the watchdog.
    const std::string text = logText();
    EXPECT_TRUE(containsInOrder(text, {"Received " + std::to_string(stream.size()) + " bytes from rack F1: " +
                                           hexText(stream) + "\n",
                                       received(ack), "Should copy bytes back\n",
                                       received(answer), "Tessel F1 R1: unlocked\n",
                                       "Tessel F1 R1 Answer - " + hexText(command) + "\n"}))
        << text;
    EXPECT_FALSE(contains(text, "messages confused, fixing\n")) << text;
    // None of the garbage reached a reader: no other frame was dispatched.
    EXPECT_EQ(countOf(text, "Smart card rack F1 reader "), 2u) << text;
    EXPECT_FALSE(contains(text, "bStatus invalid")) << text;
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

// The same garbage, but the card works a moment, so that the acknowledge
// comes in one read and garbage and answer in the next. The sync search
// drops the garbage and brings the whole answer to the head of the buffer,
// where it must be dispatched: nothing else may come on the line.
TEST_F(FaultMatrix, GarbageAfterTheAcknowledgeStillDeliversTheAnswerToItsOwnCall)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_GARBAGE, 1);
    rackSimSetCardDelayMs(faultyDevice_, 1, 20);
    const Bytes command = nextCommand();
    Exchange e = transmit(faultyHandle_, command);
    rackSimSetCardDelayMs(faultyDevice_, 1, 0);
    const std::string text = logText();

    EXPECT_EQ(e.result, SCARD_S_SUCCESS) << text;
    EXPECT_EQ(e.answer(), command);
    EXPECT_TRUE(containsInOrder(text, {received(test_support::slotFrame(1, 0x06, {})),
                                       received(test_support::slotFrame(1, 0x04, command)),
                                       "Tessel F1 R1 Answer - " + hexText(command) + "\n"}))
        << text;

    // Whatever became of it, the next call gets the answer to its own
    // command and never the one before.
    const Bytes next = nextCommand();
    Exchange e2 = transmit(faultyHandle_, next);
    EXPECT_EQ(e2.result, SCARD_S_SUCCESS);
    EXPECT_EQ(e2.answer(), next) << "the answer to " << hexText(command) << "went to a later call";
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, TruncatedAnswerIsGivenUpByTheWatchdogAndTimesOut)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_TRUNCATED, 1);
    const Bytes command = nextCommand();
    Exchange e = transmit(faultyHandle_, command);

    EXPECT_EQ(e.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(e.length, 0u);
    EXPECT_TRUE(e.bufferUntouched());
    const std::string text = logText();
    Bytes whole = test_support::slotFrame(1, 0x04, command);
    Bytes cut(whole.begin(), whole.end() - 2);
    // The acknowledge and the cut frame come in one read. The acknowledge is
    // dispatched, the cut frame waits for its missing bytes, and the
    // watchdog gives it up once the link has been quiet for a second.
    Bytes stream = test_support::slotFrame(1, 0x06, {});
    stream.insert(stream.end(), cut.begin(), cut.end());
    EXPECT_TRUE(containsInOrder(text, {"Received " + std::to_string(stream.size()) + " bytes from rack F1: " +
                                           hexText(stream) + "\n",
                                       "2ND MESSAGE NOT COMPLETE\n", "Should copy bytes back\n",
                                       "messages confused, fixing\n", "Tessel F1 R1 Timeout - "}))
        << text;
    EXPECT_FALSE(contains(text, received(cut))) << "the cut frame reached no reader";
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, WrongChecksumIsNotTestedAndTheAnswerDelivered)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_BAD_CHECKSUM, 1);
    const Bytes command = nextCommand();
    Exchange e = transmit(faultyHandle_, command);

    EXPECT_EQ(e.result, SCARD_S_SUCCESS);
    EXPECT_EQ(e.answer(), command);
    Bytes frame = test_support::slotFrame(1, 0x04, command);
    frame.back() = static_cast<uint8_t>(frame.back() + 1);
    EXPECT_TRUE(contains(logText(), received(frame))) << logText();
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, OversizedAnswerIsGivenUpAndTheLinkRecovers)
{
    rackSimSetSlotFault(faultyDevice_, 1, RACKSIM_OVERSIZED, 1);
    Exchange e = transmit(faultyHandle_, nextCommand());

    // 1,606 bytes never fit the 1,511 that the receive path can assemble.
    EXPECT_EQ(e.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(e.length, 0u);
    EXPECT_TRUE(e.bufferUntouched());
    EXPECT_TRUE(containsInOrder(logText(), {"messages confused, fixing\n", "Tessel F1 R1 Timeout - "})) << logText();
    // Whatever the frame's data looked like once its head was gone, none of
    // it reached a reader of the rack.
    for (Reader* reader : {faulty_, neighbour_}) EXPECT_EQ(reader->cardState(), static_cast<uint32_t>(kStateCard));
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

TEST_F(FaultMatrix, WriteFailureRunsOutTheWriteWaitAndHoldsOnlyItsOwnRack)
{
    rackSimSetDeviceFault(faultyDevice_, RACKSIM_WRITE_FAILS, 1);
    const Bytes command = nextCommand();
    Exchange failed;
    std::thread caller([&] { failed = transmit(faultyHandle_, command, 16); });
    ASSERT_TRUE(waitUntil([&] { return rackSimCounter(faultyDevice_, RACKSIM_WRITE_FAILURES) >= 1; }));

    // The reader whose write failed keeps F1's lock for the whole write
    // wait (about 15 s here); F2 has its own and goes on.
    EXPECT_EQ(rack_->lockHolder.load(), faulty_);
    expectServed(otherRackHandle_, "the second rack, during the write wait");
    // The device takes writes again, but nothing sends the lost frame a
    // second time: the wait runs out all the same.
    rackSimSetDeviceFault(faultyDevice_, RACKSIM_WRITE_FAILS, 0);
    caller.join();

    EXPECT_EQ(failed.result, SCARD_E_TIMEOUT);
    EXPECT_EQ(failed.length, 16u) << "the length is not written";
    EXPECT_TRUE(failed.bufferUntouched());
    EXPECT_EQ(rackSimCounter(faultyDevice_, RACKSIM_WRITE_FAILURES), 1);
    EXPECT_TRUE(commandsTo(wireLog(faultyDevice_), 1).empty());
    const std::string text = logText();
    // The lock was given back before the last line; the outgoing mailbox
    // had been read by the failed send.
    EXPECT_TRUE(containsInOrder(text, {"Tessel F1 R1 Transmit - " + hexText(command) + "\n", "FT_Write failed - 4",
                                       "Finished write\n",
                                       "Tessel F1 R1 : too long waiting for write the rack lock is 0 msg buffer is 0 "
                                       "and reader is 0\n"}))
        << text.substr(0, 2000);
    EXPECT_EQ(countOf(text, "waiting for send\n"), 120001u);
    EXPECT_FALSE(contains(text, "Tessel F1 R1 Tx - "));
    EXPECT_EQ(countOf(text, "Has sent\n"), 1u) << "only the second rack's exchange";
    expectNothingLeftBehind(faulty_);
    expectEveryoneServed();
}

// A rack whose master stays silent at one step of the bring-up, beside a
// rack that comes up normally.
class MasterFaults : public test_support::RackFixture {
protected:
    void startWithSilentMaster(int fault)
    {
        silentDevice_ = addRack("M1", 2);
        goodDevice_ = addRack("G1", 2);
        for (int device : {silentDevice_, goodDevice_})
            for (int a = 1; a <= 2; ++a) {
                insertCard(device, a, test_support::atrT1());
                rackSimSetEcho(device, a);
            }
        rackSimSetDeviceFault(silentDevice_, fault, 1);
        KickOff();
        waitForDiscoveryThreads();
        ASSERT_EQ(g_racks.size(), 2u);
        silent_ = g_racks[0];
        good_ = g_racks[1];
        ASSERT_TRUE(waitUntil([&] { return good_->enumerated.load() == 1; }));
    }

    std::string listing()
    {
        DWORD size = 0;
        if (SCardListReadersA(1, nullptr, nullptr, &size) != SCARD_S_SUCCESS) return "";
        std::string names(size, '\0');
        EXPECT_EQ(SCardListReadersA(1, nullptr, &names[0], &size), SCARD_S_SUCCESS);
        return names;
    }

    // The waits of the host calls that follow a silent master.
    void expectContextCalls()
    {
        clearLog();
        SCARDCONTEXT context = 0xFFFFFFFF;
        EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
        EXPECT_GE(static_cast<int32_t>(context), 0);
        const std::string text = logText();
        EXPECT_TRUE(std::regex_match(text, std::regex("Hit Establish Context\nSCardEstablishContext " +
                                                      std::to_string(context) + "\nTime: [0-9]+Success\n")))
            << text;

        clearLog();
        EXPECT_EQ(SCardIsValidContext(context), 6);
        EXPECT_EQ(logText(), "checking context is valid: \nINVALID CONTEXT\n");
    }

    void expectGoodRackServed()
    {
        SCARDHANDLE handle = connect("Tessel G1 R2");
        Bytes command{0x00, 0xCA, 0x01, 0x02};
        Exchange e = transmit(handle, command);
        EXPECT_EQ(e.result, SCARD_S_SUCCESS);
        EXPECT_EQ(e.answer(), command);
    }

    int silentDevice_ = -1, goodDevice_ = -1;
    Rack* silent_ = nullptr;
    Rack* good_ = nullptr;
};

const Bytes kResetFrame{0x55, 0x00, 0x00, 0xF0, 0xBB};
const Bytes kEnumerateFrame{0x55, 0x00, 0x00, 0xC1, 0xEA};
const Bytes kCollectedFrame{0x55, 0x00, 0x00, 0xC2, 0xE9};

TEST_F(MasterFaults, MasterSilentAtEnumerationLeavesARackWithoutReaders)
{
    startWithSilentMaster(RACKSIM_MASTER_SILENT_ENUMERATE);
    if (HasFatalFailure()) return;

    expectContextCalls();
    EXPECT_EQ(silent_->readers.size(), 0u);
    EXPECT_EQ(silent_->enumerated.load(), 0u);
    EXPECT_EQ(wireLog(silentDevice_), (std::vector<Bytes>{kResetFrame, kEnumerateFrame}));

    // Only the good rack's readers exist.
    EXPECT_EQ(listing(), std::string("Tessel G1 R1\0Tessel G1 R2\0\0", 27));
    clearLog();
    SCARDHANDLE handle = 0x77;
    DWORD active = 0;
    EXPECT_EQ(SCardConnectA(1, "Tessel M1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active),
              SCARD_E_READER_UNAVAILABLE);
    EXPECT_EQ(handle, 0x77u);
    EXPECT_EQ(logText(), "SCardConnectA: Tessel M1 R1\nNo Reader\n");

    expectGoodRackServed();
}

TEST_F(MasterFaults, MasterSilentAtStatusCollectedLeavesTheRackUnconfirmedButUsable)
{
    startWithSilentMaster(RACKSIM_MASTER_SILENT_COLLECTED);
    if (HasFatalFailure()) return;
    ASSERT_TRUE(waitUntil([&] { return wireLog(silentDevice_).size() == 5; }));  // reset, C1, 2 requests, C2

    expectContextCalls();
    EXPECT_EQ(silent_->enumerated.load(), 0u);
    EXPECT_EQ(silent_->readers.size(), 2u);
    EXPECT_EQ(wireLog(silentDevice_).back(), kCollectedFrame);
    EXPECT_EQ(listing(), std::string("Tessel M1 R1\0Tessel M1 R2\0Tessel G1 R1\0Tessel G1 R2\0\0", 53));

    // Its readers were collected with their cards: they connect and
    // exchange, although the rack never counts as ready.
    SCARDHANDLE handle = connect("Tessel M1 R1");
    // The reply to the connect still counts as a status of the collection,
    // past the number of readers, and no second closing frame follows.
    ASSERT_TRUE(waitUntil([&] { return silent_->statusCount.load() >= 3; }));
    Bytes command{0x00, 0xCA, 0x03, 0x04};
    Exchange e = transmit(handle, command);
    EXPECT_EQ(e.result, SCARD_S_SUCCESS);
    EXPECT_EQ(e.answer(), command);
    std::vector<Bytes> wire = wireLog(silentDevice_);
    EXPECT_EQ(std::count(wire.begin(), wire.end(), kCollectedFrame), 1);
    EXPECT_EQ(silent_->enumerated.load(), 0u);
    EXPECT_EQ(SCardIsValidContext(0), 6);

    expectGoodRackServed();
}

}  // namespace
}  // namespace robustness
