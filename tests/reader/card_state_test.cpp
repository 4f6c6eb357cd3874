// Card state and ATR as the status thread keeps them, driven by the card
// events of the emulated rack and by raw status frames; the protocol walk
// over the ATR's interface bytes.
#include <gtest/gtest.h>

#include "diag/text.h"
#include "reader/protocol_walk.h"
#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace {

using namespace test_support;
using Bytes = std::vector<uint8_t>;

class CardState : public OneRackFixture {
protected:
    void startRack(int slots) { OneRackFixture::startRack("CS", slots); }
    Bytes atrOf(int address)
    {
        Bytes atr(32);
        atr.resize(reader(address)->atr(atr.data()));
        return atr;
    }
    bool stateIs(int address, uint32_t state)
    {
        return waitUntil([&] { return reader(address)->cardState() == state; });
    }
    // Puts a frame on the line and waits until the rack has taken it and
    // the status thread has had many polls' time to read it.
    void deliver(const Bytes& frame)
    {
        std::string trace = "RX - " + hexDump(frame.data(), static_cast<int32_t>(frame.size())) + "\n";
        size_t seen = occurrences(trace);
        inject(device_, frame);
        ASSERT_TRUE(waitUntil([&] { return occurrences(trace) > seen; }));
        ASSERT_TRUE(waitUntil([&] { return frameTaken(frame[1]); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    bool frameTaken(int address)
    {
        return address >= 1 && static_cast<size_t>(address) <= rack_->readers().size()
                   ? !reader(address)->statusWaiting()
                   : true;
    }
};

TEST_F(CardState, InsertRemoveMuteAndBackFollowTheRackEvents)
{
    startRack(2);
    const Bytes atr{0x3B, 0x80, 0x01};
    insertCard(device_, 1, atr);
    ASSERT_TRUE(stateIs(1, kStateCard));
    EXPECT_EQ(atrOf(1), atr);

    rackSimRemoveCard(device_, 1);
    ASSERT_TRUE(stateIs(1, kStateNoCard));
    EXPECT_EQ(reader(1)->atrLength(), 0u);

    rackSimMuteCard(device_, 1);
    ASSERT_TRUE(stateIs(1, kStateMuteCard));
    EXPECT_EQ(reader(1)->atrLength(), 0u);

    insertCard(device_, 1, atr);
    ASSERT_TRUE(stateIs(1, kStateCard));
    EXPECT_EQ(atrOf(1), atr);
    EXPECT_EQ(reader(2)->cardState(), kStateNoCard) << "events touch only their own slot";

    std::string log = logText();
    size_t first = log.find("Tessel CS R1: New card found\n");
    size_t removed = log.find("Tessel CS R1: Card removed\n");
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(removed, std::string::npos);
    EXPECT_LT(first, removed);
    EXPECT_NE(log.find("Tessel CS R1: New card found\n", removed), std::string::npos);
}

// A status with the ATR already stored repeats what is known: no trace, no
// event. One with another ATR is a card swapped between two messages: the
// new ATR is stored and counted as an event, like every insertion, removal
// and mute change, and only those.
TEST_F(CardState, CardDataWithAnotherAtrIsANewCardAndEveryChangeIsCounted)
{
    startRack(1);
    insertCard(device_, 1, {0x3B, 0x00});
    ASSERT_TRUE(stateIs(1, kStateCard));
    clearLog();
    const uint32_t start = reader(1)->eventCount();
    struct Row {
        const char* what;
        Bytes frame;
        uint32_t state;
        Bytes atr;
        uint32_t events;  // counted since the start
    };
    const Row rows[] = {
        {"the same ATR", slotFrame(1, 0x05, {0x3B, 0x00}), kStateCard, {0x3B, 0x00}, 0},
        {"another ATR", slotFrame(1, 0x05, {0x3B, 0x99, 0x99}), kStateCard, {0x3B, 0x99, 0x99}, 1},
        {"top bits play no part: status 5", slotFrame(1, 0x45, {0x3B, 0x77}), kStateCard, {0x3B, 0x77}, 2},
        {"no event", slotFrame(1, 0x02, {}), kStateCard, {0x3B, 0x77}, 2},
        {"mute", slotFrame(1, 0x03, {}), kStateMuteCard, {}, 3},
        {"mute again", slotFrame(1, 0x03, {}), kStateMuteCard, {}, 3},
        {"speaks again", slotFrame(1, 0x05, {0x3B, 0x77}), kStateCard, {0x3B, 0x77}, 4},
        {"removed", slotFrame(1, 0x01, {}), kStateNoCard, {}, 5},
        {"removed again", slotFrame(1, 0x01, {}), kStateNoCard, {}, 5},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        deliver(row.frame);
        EXPECT_TRUE(stateIs(1, row.state));
        EXPECT_EQ(atrOf(1), row.atr);
        EXPECT_EQ(reader(1)->eventCount() - start, row.events);
    }
    EXPECT_EQ(occurrences("Tessel CS R1: New card found\n"), 3u);
}

// A card taken out and put back so fast that the insertion's frame lands
// before the status thread has taken the removal's: the mailbox keeps only
// the last frame, and the removal still counts.
TEST_F(CardState, ARemovalReplacedUnreadStillCounts)
{
    startRack(1);
    insertCard(device_, 1, {0x3B, 0x00});
    ASSERT_TRUE(stateIs(1, kStateCard));
    const uint32_t start = reader(1)->eventCount();
    Bytes both = slotFrame(1, 0x01, {});
    const Bytes back = slotFrame(1, 0x05, {0x3B, 0x00});
    both.insert(both.end(), back.begin(), back.end());
    inject(device_, both);
    ASSERT_TRUE(waitUntil([&] { return reader(1)->eventCount() - start >= 2; }));
    EXPECT_EQ(reader(1)->eventCount() - start, 2u);
    EXPECT_TRUE(stateIs(1, kStateCard));
    EXPECT_EQ(atrOf(1), (Bytes{0x3B, 0x00}));
}

TEST_F(CardState, StatusFiveWithoutDataGivesACardWithoutAtrEachTime)
{
    startRack(1);
    deliver(slotFrame(1, 0x05, {}));
    ASSERT_TRUE(stateIs(1, kStateCard));
    EXPECT_EQ(reader(1)->atrLength(), 0u);
    deliver(slotFrame(1, 0x05, {}));
    EXPECT_EQ(occurrences("Tessel CS R1: New card found\n"), 2u);
}

TEST_F(CardState, ExtendedMarkerCountsAsCardDataAndOtherStatusesAreTracedOrIgnored)
{
    startRack(3);
    // Whole byte 0x0D: an extended frame (length split around the marker),
    // counted as card data.
    deliver({0x55, 0x01, 0x02, 0x0D, 0x00, 0x3B, 0x00, 0x60});
    ASSERT_TRUE(stateIs(1, kStateCard));
    deliver(slotFrame(2, 0x2D, {}));  // status 13, not the marker
    deliver(slotFrame(3, 0x02, {}));
    deliver(slotFrame(3, 0x04, {}));
    std::string log = logText();
    EXPECT_NE(log.find("bStatus invalid. 13\n"), std::string::npos);
    EXPECT_EQ(reader(2)->cardState(), kStateNoCard);
    EXPECT_EQ(reader(3)->cardState(), kStateNoCard);
    EXPECT_EQ(log.find("bStatus invalid. 2\n"), std::string::npos);
}

TEST_F(CardState, CollectionCountsEveryReaderAndSendsTheClosingFrameOnce)
{
    int device = addRack("COL", 3);
    insertCard(device, 1, {0x3B, 0x00});
    rackSimMuteCard(device, 2);
    startLibrary(1);
    rack_ = g_racks[0];
    device_ = device;
    EXPECT_EQ(reader(1)->cardState(), kStateCard);
    EXPECT_EQ(reader(2)->cardState(), kStateCard) << "a mute card counts as a card during collection";
    EXPECT_EQ(reader(2)->atrLength(), 0u);
    EXPECT_EQ(reader(3)->cardState(), kStateNoCard);

    // Later status messages are events: the closing frame is not sent again.
    rack_->requestStatus(reader(3));
    deliver(slotFrame(3, 0x01, {}));
    int closing = 0;
    for (const Bytes& frame : wireLog(device_))
        if (frame == Bytes{0x55, 0x00, 0x00, 0xC2, 0xE9}) ++closing;
    EXPECT_EQ(closing, 1);
    EXPECT_EQ(rack_->statusCount(), 3u);
}

struct WalkCase {
    Bytes atr;
    uint32_t first;
    uint32_t mask;
};

class ProtocolWalk : public ::testing::TestWithParam<WalkCase> {};

TEST_P(ProtocolWalk, InterfaceBytesNameTheProtocols)
{
    const WalkCase& c = GetParam();
    const OfferedProtocols offered = offeredProtocols(Atr(c.atr.data(), static_cast<uint32_t>(c.atr.size())));
    EXPECT_EQ(offered.first, c.first);
    EXPECT_EQ(offered.mask, c.mask);
}

INSTANTIATE_TEST_SUITE_P(
    Atrs, ProtocolWalk,
    ::testing::Values(WalkCase{{0x3B, 0x60, 0x00, 0x00}, 0, 0},                   // TB1, TC1, no TD1
                      WalkCase{{0x3B, 0x80, 0x01}, 2, 2},                         // TD1: T=1
                      WalkCase{{0x3B, 0x80, 0x80, 0x01}, 1, 3},                   // T=0, then T=1
                      WalkCase{{0x3B, 0x81, 0x31, 0xFE, 0x45, 0x80}, 2, 2},
                      WalkCase{{0x3B, 0x80}, 0, 0},                               // TD1 announced, missing
                      WalkCase{{0x3B, 0x80, 0x80}, 1, 1}),                        // TD2 announced, missing
    [](const ::testing::TestParamInfo<WalkCase>& info) {
        std::string name = "Atr";
        for (uint8_t b : info.param.atr) name += hexDump(&b, 1).substr(0, 2);
        return name;
    });

}  // namespace
