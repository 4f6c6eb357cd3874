// The one-deep mailbox shared by a writer thread and two consumers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/signal.h"
#include "platform/test_seam.h"

#include "reader/atr.h"
#include "reader/mailbox.h"
#include "reader/reader.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Mailbox, WriteSetsBothFlagsAndReadLeavesTheMessageInPlace)
{
    Mailbox box;
    const Bytes frame{0x55, 0x03, 0x02, 0x05, 0x3B, 0x00, 0x66};
    box.write(frame.data(), static_cast<uint32_t>(frame.size()));
    EXPECT_EQ(box.flag(false), 1);
    EXPECT_EQ(box.flag(true), 1);

    Bytes first(Mailbox::capacity), second(Mailbox::capacity);
    EXPECT_EQ(box.read(first.data()), frame.size());
    EXPECT_EQ(box.flag(false), 0) << "a read clears unread";
    EXPECT_EQ(box.flag(true), 1) << "a read leaves arrived alone";
    EXPECT_EQ(box.read(second.data()), frame.size());
    EXPECT_EQ(first, second);
    EXPECT_EQ(Bytes(first.begin(), first.begin() + 7), frame);

    box.clearArrived();
    EXPECT_EQ(box.flag(true), 0);
    EXPECT_EQ(box.length.load(), frame.size()) << "clearing arrived keeps the message";
}

TEST(Mailbox, NewerMessageReplacesAnUnreadOne)
{
    Mailbox box;
    const Bytes older(40, 0x11), newer{0x55, 0x01, 0x00, 0x04, 0xA6};
    box.write(older.data(), 40);
    box.write(newer.data(), 5);
    Bytes out(Mailbox::capacity, 0);
    EXPECT_EQ(box.read(out.data()), 5u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 5), newer);
    EXPECT_EQ(out[5], 0) << "only length bytes are copied out";
}

TEST(Mailbox, AReaderNeverSeesHalfOfOneFrameAndHalfOfAnother)
{
    Mailbox box;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        Bytes frame(Mailbox::capacity);
        for (uint32_t round = 1; round <= 20000; ++round) {
            uint32_t length = 5 + round % 700;
            std::fill(frame.begin(), frame.begin() + length, static_cast<uint8_t>(round));
            frame[0] = static_cast<uint8_t>(length);
            frame[1] = static_cast<uint8_t>(length >> 8);
            box.write(frame.data(), length);
        }
        done = true;
    });
    Bytes out(Mailbox::capacity);
    uint32_t checked = 0;
    while (!done || checked == 0) {
        if (!box.flag(false)) continue;
        uint32_t length = box.read(out.data());
        ASSERT_EQ(length, out[0] + 256u * out[1]);
        for (uint32_t i = 2; i < length; ++i) ASSERT_EQ(out[i], out[2]) << "torn at " << i;
        ++checked;
    }
    writer.join();
    EXPECT_GT(checked, 0u);
}

// The status thread and a waiting exchange each take every frame, even
// when the next frame is written while a reader is still finishing its
// read of the last one: the hook holds the status reader there for 50 us
// and the writer stores the next frame in that window.
std::atomic<uint32_t> g_statusCopies{0};
thread_local bool t_countsCopies = false;

void pauseInStatusCopy()
{
    if (!t_countsCopies) return;
    g_statusCopies.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
}

uint32_t frameId(const Bytes& frame) { return frame[0] | frame[1] << 8; }

TEST(Mailbox, BothReadersTakeEveryFrameWrittenWhileTheStatusReaderFinishesACopy)
{
    constexpr uint32_t kFrames = 1000;
    Reader reader(3, "SER");
    g_statusCopies = 0;
    platform::testing::setMailboxCopyHook(pauseInStatusCopy);
    std::atomic<bool> done{false};
    std::vector<uint32_t> statusTook, exchangeTook;
    std::atomic<uint32_t> lastExchangeId{0};
    auto follow = [&](Mailbox::Taker taker, std::vector<uint32_t>& took) {
        t_countsCopies = taker == Mailbox::Taker::status;
        Bytes out(Mailbox::capacity);
        while (!done) {
            if (!(taker == Mailbox::Taker::exchange ? reader.answerWaiting() : reader.statusWaiting())) {
                std::this_thread::yield();
                continue;
            }
            reader.takeIncoming(out.data(), taker);
            took.push_back(frameId(out));
            if (taker == Mailbox::Taker::exchange) lastExchangeId = frameId(out);
        }
    };
    std::thread status(follow, Mailbox::Taker::status, std::ref(statusTook));
    std::thread exchange(follow, Mailbox::Taker::exchange, std::ref(exchangeTook));

    // A generous bound, only so that a lost frame fails instead of hanging.
    auto waitFor = [](auto condition) {
        auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!condition() && std::chrono::steady_clock::now() < giveUp) std::this_thread::yield();
        return condition();
    };
    Bytes frame(8, 0);
    for (uint32_t id = 1; id <= kFrames; ++id) {
        frame[0] = static_cast<uint8_t>(id);
        frame[1] = static_cast<uint8_t>(id >> 8);
        reader.putIncoming(frame.data(), 8, false);
        // The next frame goes in while the status reader pauses after its copy.
        if (!waitFor([&] { return g_statusCopies.load() >= id && lastExchangeId.load() == id; })) break;
    }
    bool settled = waitFor([&] { return !reader.statusWaiting() && !reader.answerWaiting(); });
    done = true;
    status.join();
    exchange.join();
    platform::testing::setMailboxCopyHook(nullptr);

    EXPECT_TRUE(settled);
    std::vector<uint32_t> every(kFrames);
    for (uint32_t i = 0; i < kFrames; ++i) every[i] = i + 1;
    EXPECT_EQ(statusTook, every);
    EXPECT_EQ(exchangeTook, every);
}

TEST(SharedAtr, ReadersGetWholeValuesWhileOneThreadStores)
{
    SharedAtr shared;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (uint32_t round = 0; round < 50000; ++round) {
            uint8_t bytes[32];
            uint32_t length = 1 + round % 32;
            std::fill(bytes, bytes + 32, static_cast<uint8_t>(length));
            shared.store(Atr(bytes, length));
        }
        done = true;
    });
    while (!done) {
        Atr value = shared.load();
        for (uint32_t i = 0; i < value.length; ++i) ASSERT_EQ(value.bytes[i], value.length);
    }
    writer.join();
}

TEST(Atr, KeepsAtMostThirtyTwoBytes)
{
    Bytes long40(40, 0x3B);
    Atr atr(long40.data(), 40);
    EXPECT_EQ(atr.length, 32u);
    Bytes out(32);
    EXPECT_EQ(atr.copyTo(out.data()), 32u);
}

TEST(ReaderMailbox, AnOutgoingFrameStartsANewSendAndIsTakenOnce)
{
    Reader reader(5, "SER");
    reader.noteSent();
    const Bytes select{0x55, 0x05, 0x00, 0x60, 0x46};
    reader.putOutgoing(select.data(), static_cast<uint32_t>(select.size()));
    EXPECT_EQ(reader.hasSent(), 0u);
    EXPECT_TRUE(reader.outgoingWaiting());
    Bytes out(Mailbox::capacity);
    ASSERT_EQ(reader.takeOutgoing(out.data()), 5u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 5), select);
    EXPECT_FALSE(reader.outgoingWaiting());
    reader.noteSendFailed();
    EXPECT_EQ(reader.sendFailures(), 1u);
    EXPECT_EQ(reader.name, "Tessel SER R5");
    std::wstring wide;
    reader.wideName(wide);
    EXPECT_EQ(wide, L"Tessel SER R5");
}

// The wait that every wait for the racks goes through: a notify that falls
// between the waiter's test and its sleep still ends the sleep (the
// injected row makes the condition true and notifies from inside the
// test, after the waiter has seen it false), and a condition that never
// holds ends at the deadline. A lost wake-up would hold its row to the
// hour's deadline, past the suite's time-out; nothing here is timed.
TEST(Signal, WaitForMissesNoWakeUpBetweenItsTestAndItsSleep)
{
    enum class Change { holdsAtOnce, never, betweenTestAndSleep, fromAnotherThread };
    const struct {
        Change change;
        uint32_t limitMs;
        bool holds;
    } rows[] = {
        {Change::holdsAtOnce, 0, true},
        {Change::never, 20, false},
        {Change::betweenTestAndSleep, 3600000, true},
        {Change::fromAnotherThread, 3600000, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.change));
        platform::Signal signal;
        std::atomic<bool> done{row.change == Change::holdsAtOnce};
        int tests = 0;
        std::thread notifier;
        const bool held = signal.waitFor(
            [&] {
                ++tests;
                if (done.load()) return true;
                if (tests == 1 && row.change == Change::betweenTestAndSleep) {
                    done = true;
                    signal.notify();
                }
                if (tests == 1 && row.change == Change::fromAnotherThread)
                    notifier = std::thread([&] {
                        std::this_thread::sleep_for(std::chrono::milliseconds(5));
                        done = true;
                        signal.notify();
                    });
                return false;
            },
            platform::Signal::deadlineIn(row.limitMs));
        if (notifier.joinable()) notifier.join();
        EXPECT_EQ(held, row.holds);
    }
}

}  // namespace
