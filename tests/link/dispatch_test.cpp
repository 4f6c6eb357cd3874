// Frame dispatch and the rack lock: acknowledges, master frames, frames
// from unknown addresses, the order of the send queue, and many threads
// sending at once with no message stranded and no breach of the
// one-message-at-a-time rule.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace {

using namespace test_support;
using Bytes = std::vector<uint8_t>;

class Dispatch : public OneRackFixture {
protected:
    void startRack(int slots) { OneRackFixture::startRack("DSP", slots); }
    bool quiet() { return rack_->lockHolder() == nullptr && rack_->queuedTurns() == 0; }
};

Bytes statusRequestTo(uint8_t address) { return slotFrame(address, 0x00, {}); }

// Frames from the master, and from an address without a reader, are traced
// and reach no reader.
TEST_F(Dispatch, MasterFramesAndFramesFromUnknownAddressesChangeNothing)
{
    startRack(2);
    inject(device_, slotFrame(9, 0x05, {0x3B, 0x00}));
    inject(device_, slotFrame(0, 0xC3, {}));
    inject(device_, slotFrame(0, 0x06, {}));  // an acknowledge from the master
    ASSERT_TRUE(waitUntil([&] { return logText().find("reader 0 RX - 55 00 00 06 a5 \n") != std::string::npos; }));
    std::string log = logText();
    EXPECT_NE(log.find("reader 9 RX - "), std::string::npos);
    EXPECT_NE(log.find("Smart card rack DSP reader 0 RX - 55 00 00 c3 e8 \nmsg from master\n"), std::string::npos);
    EXPECT_EQ(log.find("Unlocking rack"), std::string::npos);
    EXPECT_EQ(reader(1)->blocked(), 0u);
    EXPECT_EQ(reader(1)->cardState(), kStateNoCard);
    EXPECT_EQ(reader(2)->cardState(), kStateNoCard);
}

TEST_F(Dispatch, StatusFrameWithoutAcknowledgeStillEndsTheExchange)
{
    int device = addRack("NOACK", 3);
    rackSimSetSlotFault(device, 2, RACKSIM_ACK_LOST, 1);
    startLibrary(1);
    EXPECT_EQ(rackSimCounter(device, RACKSIM_BUS_VIOLATIONS), 0);
    EXPECT_NE(logText().find("Tessel NOACK R2 Reader without card found.\n"), std::string::npos);
}

TEST_F(Dispatch, AcknowledgeFromAnotherReaderFreesTheLockAndTheQueueGoesOnInOrder)
{
    startRack(4);
    // Slot 1 takes the lock and never answers; three turns queue behind it.
    rackSimSetSlotFault(device_, 1, RACKSIM_NO_ACK, 1);
    rack_->requestStatus(reader(1));
    ASSERT_EQ(rack_->lockHolder(), reader(1));
    rack_->requestStatus(reader(3));
    rack_->requestStatus(reader(2));
    rack_->requestStatus(reader(4));
    EXPECT_EQ(rack_->queuedTurns(), 3u);

    // An acknowledge from slot 2, which holds nothing, frees the bus.
    inject(device_, slotFrame(2, 0x06, {}));
    ASSERT_TRUE(waitUntil([&] { return quiet() && wireLog(device_).size() == 3 + 4 + 4; }));
    std::vector<Bytes> wire = wireLog(device_);
    std::vector<Bytes> tail(wire.end() - 4, wire.end());
    EXPECT_EQ(tail, (std::vector<Bytes>{statusRequestTo(1), statusRequestTo(3), statusRequestTo(2), statusRequestTo(4)}));
    std::string log = logText();
    EXPECT_NE(log.find("reader 2 RX - 55 02 00 06 a3 \nUnlocking rack\n"), std::string::npos);
}

TEST_F(Dispatch, ReaderQueuedTwiceSendsWhatItsMailboxHoldsAtEachTurn)
{
    startRack(2);
    rackSimSetSlotFault(device_, 1, RACKSIM_NO_ACK, 1);
    rack_->requestStatus(reader(1));  // holds the lock
    reader(2)->setProtocol(1);
    rack_->selectProtocol(reader(2));
    rack_->requestStatus(reader(2));  // replaces the select frame in the mailbox
    rack_->releaseLock(reader(1));
    ASSERT_TRUE(waitUntil([&] { return quiet() && wireLog(device_).size() == 3 + 2 + 3; }));
    std::vector<Bytes> wire = wireLog(device_);
    EXPECT_EQ(wire[wire.size() - 2], statusRequestTo(2));
    EXPECT_EQ(wire[wire.size() - 1], statusRequestTo(2));
}

TEST_F(Dispatch, ManySendersAtOnceLeaveNoMessageStrandedAndKeepOneMessageOnTheBus)
{
    constexpr int kSlots = 16, kThreads = 8, kRequestsPerSlot = 40;
    device_ = addRack("DSP", kSlots);
    for (int a = 1; a <= kSlots; ++a) insertCard(device_, a, atrT0());
    startLibrary(1);
    rack_ = g_racks[0];
    long long before = rackSimCounter(device_, RACKSIM_FRAMES_FROM_HOST);

    // Like the exchanges of the API, a slot's next message is queued only
    // once the answer to its previous one is in: a slot queued again before
    // that could have its lock freed by the late answer to the earlier one.
    std::atomic<int> unanswered{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < kRequestsPerSlot; ++i)
                for (int a = t + 1; a <= kSlots; a += kThreads) {
                    Reader* slot = reader(a);
                    slot->clearIncoming();
                    rack_->requestStatus(slot);
                    if (!waitUntil([&] { return slot->answerWaiting(); })) ++unanswered;
                }
        });
    for (auto& sender : senders) sender.join();

    EXPECT_EQ(unanswered.load(), 0);
    const long long expected = before + kSlots * kRequestsPerSlot;
    ASSERT_TRUE(waitUntil([&] { return rackSimCounter(device_, RACKSIM_FRAMES_FROM_HOST) == expected && quiet(); }))
        << "frames sent: " << rackSimCounter(device_, RACKSIM_FRAMES_FROM_HOST) - before << " of "
        << kSlots * kRequestsPerSlot << ", queue " << rack_->queuedTurns();
    EXPECT_EQ(rackSimCounter(device_, RACKSIM_BUS_VIOLATIONS), 0);
}

}  // namespace
