// The receive path against a byte stream with no message boundaries. The
// frame assembler is driven straight by tables: byte streams in the pieces
// in which they reach the device's queue, and the transcript they leave in
// the log (frames handed on, traces, give-ups). The late receive thread is
// also shown through the rack's own receive loop against the emulator.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "diag/text.h"
#include "link/frame_assembler.h"
#include "link/rack_frame.h"
#include "support/rack_fixture.h"

namespace {

using namespace test_support;
using Bytes = std::vector<uint8_t>;

constexpr int64_t kPollMs = 5;
constexpr int64_t kLateMs = FrameAssembler::quietLimitMs + 1;

Bytes operator+(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
Bytes slice(const Bytes& b, size_t from, size_t to = SIZE_MAX)
{
    return {b.data() + from, b.data() + std::min(to, b.size())};
}
// An extended frame whose data bytes count up to `period` and start over.
Bytes extendedFrame(uint8_t address, size_t dataBytes, uint8_t period)
{
    Bytes frame{0x55, address, static_cast<uint8_t>(dataBytes), 0x0D, static_cast<uint8_t>(dataBytes >> 8)};
    for (size_t i = 0; i < dataBytes; ++i) frame.push_back(static_cast<uint8_t>(i % period));
    frame.push_back(frameChecksum(frame.data(), static_cast<uint32_t>(frame.size())));
    return frame;
}

std::string handed(const void* frame, size_t size) { return "frame " + hexDump(frame, int32_t(size)) + "\n"; }
std::string handed(const Bytes& frame) { return handed(frame.data(), frame.size()); }

const Bytes kCardIn3 = slotFrame(3, 0x05, {0x3B, 0x00});  // 55 03 02 05 3b 00 66
const Bytes kCardIn2 = slotFrame(2, 0x05, {0x3B, 0x01});
const Bytes kTruncated{0x55, 0x02, 0x20, 0x05, 0x3B, 0x00};  // claims 32 data bytes
// 256 data bytes full of sync bytes: given up, its data would read as frames.
const Bytes kSyncRich = extendedFrame(1, 256, 0x57);
const Bytes kLong = extendedFrame(3, 1400, 0x50);          // 1,406 bytes: fits the buffer
const Bytes kOverScratch = extendedFrame(3, 1024, 0x50);   // 1,030 bytes
const Bytes kOversized = extendedFrame(2, 1600, 0x01);     // more than the buffer assembles
const std::string kSeveral = "Greater Than Expected Message Length\n";

// Pieces as they reach the device's queue; an empty piece stands for a
// receive thread away for longer than the watchdog's limit. The transcript
// has "then" before each later piece and "quiet" where the link goes quiet.
struct Stream { const char* name; std::vector<Bytes> pieces; std::string transcript; };
void PrintTo(const Stream& stream, std::ostream* out) { *out << stream.name; }
const Bytes kAway;

const Stream kStreams[] = {
    // Until four bytes are held no size is worked out; with four, byte 4
    // of an extended frame reads as 0 until it comes.
    {"ExtendedFrameInSmallPieces", {slice(kSyncRich, 0, 1), slice(kSyncRich, 1, 3), slice(kSyncRich, 3, 4),
     slice(kSyncRich, 4)}, "then\nthen\nthen\n" + handed(kSyncRich) + "quiet\n"},
    {"TwoFramesInOneRead", {kCardIn2 + kCardIn3},
     kSeveral + handed(kCardIn2) + "MSGOFF: 7,rxMsgLastIndexOf: 14\n" + handed(kCardIn3) +
         "MSGOFF: 14,rxMsgLastIndexOf: 14\nquiet\n"},
    {"AFrameAndAHalfThenTheRest", {kCardIn2 + slice(kCardIn3, 0, 5), slice(kCardIn3, 5)},
     kSeveral + handed(kCardIn2) + "MSGOFF: 7,rxMsgLastIndexOf: 12\n2ND MESSAGE NOT COMPLETE\n"
         "Should copy bytes back\nthen\n" + handed(kCardIn3) + "quiet\n"},
    // The sync search drops the stray byte and the frame behind it is
    // handed on in the same pass, not when the rack sends more.
    {"StrayBytesBehindAFrameAreDroppedAndTheNextFrameGoesOnAtOnce", {kCardIn2 + Bytes{0x42} + kCardIn3},
     kSeveral + handed(kCardIn2) + "MSGOFF: 7,rxMsgLastIndexOf: 15\nShould copy bytes back\n" + handed(kCardIn3) +
         "quiet\n"},
    // A lone sync byte behind a frame keeps that frame's size as the size
    // of the head, which the quiet link gives up.
    {"ALoneSyncByteBehindAFrameIsGivenUpWhenTheLinkIsQuiet", {kCardIn3 + Bytes{0x55}},
     kSeveral + handed(kCardIn3) + "MSGOFF: 7,rxMsgLastIndexOf: 8\n2ND MESSAGE NOT COMPLETE\n"
         "Should copy bytes back\nquiet\nmessages confused, fixing\n"},
    {"ATruncatedFrameIsGivenUpWhenTheLinkIsQuietAndTheNextOneFound", {kTruncated + kCardIn3},
     "quiet\nmessages confused, fixing\n" + handed(kCardIn3)},
    {"ALatePassReadsTheRestOfAFrameWaitingInTheQueue", {slice(kSyncRich, 0, 100), kAway, slice(kSyncRich, 100)},
     "then\n" + handed(kSyncRich) + "quiet\n"},
    // Read 512 bytes at a time, it would stop at 1,024 held, short of its end.
    {"FrameOfMoreThanAThousandBytesIsCompletedAfterReadingStops", {kLong}, handed(kLong) + "quiet\n"},
    {"FrameLargerThanTheScratchCopyAmongSeveral", {slice(kOverScratch, 0, 600), slice(kOverScratch, 600) + kCardIn3},
     "then\n" + kSeveral + handed(kOverScratch) + "MSGOFF: 1030,rxMsgLastIndexOf: 1037\n" + handed(kCardIn3) +
         "MSGOFF: 1037,rxMsgLastIndexOf: 1037\nquiet\n"},
    {"FrameLargerThanTheBufferAssemblesIsGivenUpAtOnce", {kOversized, kCardIn3},
     "messages confused, fixing\nthen\n" + handed(kCardIn3) + "quiet\n"},
};

// The assembler behind a stand-in for the device's queue, passed over the
// way the receive loop passes over it, on a clock of its own.
class AssemblerStreams : public RackFixture, public ::testing::WithParamInterface<Stream> {
protected:
    FrameAssembler assembler{[](const uint8_t* frame, uint32_t size) { logWrite(handed(frame, size)); }};
    Bytes queue;
    int64_t now = 0;

    // Passes `gapMs` apart until one changes nothing.
    void passesEvery(int64_t gapMs)
    {
        for (bool changed = true; changed;) {
            now += gapMs;
            uint32_t waiting = static_cast<uint32_t>(queue.size()), held = assembler.heldCount(), read = 0;
            if (assembler.shouldGiveUp(now, waiting)) assembler.giveUp();
            if (waiting > 0) {
                assembler.linkSeen(now);
                read = assembler.bytesToRead(waiting);
                assembler.append(queue.data(), read);
                queue.erase(queue.begin(), queue.begin() + read);
                assembler.parse();
            }
            changed = read > 0 || assembler.heldCount() != held;
        }
    }
};

TEST_P(AssemblerStreams, LeaveTheirTranscript)
{
    for (const Bytes& piece : GetParam().pieces) {
        if (piece.empty()) {
            now += kLateMs - kPollMs;
            continue;
        }
        if (now > 0) logWrite("then\n");
        queue = queue + piece;
        passesEvery(kPollMs);
    }
    logWrite("quiet\n");
    passesEvery(kLateMs);
    EXPECT_EQ(logText(), GetParam().transcript);
}

INSTANTIATE_TEST_SUITE_P(Reassembly, AssemblerStreams, ::testing::ValuesIn(kStreams),
                         [](const ::testing::TestParamInfo<Stream>& info) { return info.param.name; });

TEST(AssemblerGiveUp, DependsOnWhatIsHeldTheQuietAndTheBytesWaiting)
{
    const struct { const char* what; Bytes held; int64_t quietMs; uint32_t waiting; bool givesUp; } cases[] = {
        {"a frame in progress, the link quiet", slice(kCardIn3, 0, 5), kLateMs, 0, true},
        {"a frame in progress, a late pass with its rest waiting", slice(kCardIn3, 0, 5), kLateMs, 2, false},
        {"a frame in progress, quiet just to the limit", slice(kCardIn3, 0, 5), kLateMs - 1, 0, false},
        {"nothing held", kCardIn3, 5000, 0, false},
        {"a sync byte and two more, no size yet", {0x55, 0x03, 0x02}, 5000, 0, false},
        {"reading stopped for a frame too large to assemble", slice(kOversized, 0, 1024), 0, 600, true},
        {"reading stopped short of a frame that fits", slice(kLong, 0, 1024), 0, 382, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        FrameAssembler assembler{[](const uint8_t*, uint32_t) {}};
        assembler.append(c.held.data(), static_cast<uint32_t>(c.held.size()));
        assembler.parse();
        EXPECT_EQ(assembler.shouldGiveUp(c.quietMs, c.waiting), c.givesUp);
    }
}

// The rack's receive loop against the emulator.
class Reassembly : public OneRackFixture {};

TEST_F(Reassembly, ReceiveThreadBackLateReadsTheRestOfAFrameBeforeJudgingTheLinkQuiet)
{
    startRack("RX", 3);
    // The master's slot map holds the receive thread for its 3 s pause
    // before the status requests, as a descheduled thread is held. The
    // first read takes the map and 267 bytes of the answer behind it; the
    // answer's last 33 bytes wait in the device's queue all that time.
    Bytes emptyMap = slotFrame(0, 0xC5, Bytes(240, 0x00));
    Bytes answer = extendedFrame(3, 294, 0x57);
    inject(device_, emptyMap + answer);
    ASSERT_TRUE(waitUntil([&] { return occurrences("reader 3 RX - " + hexDump(answer.data(), 300)) == 1; }));
    EXPECT_EQ(occurrences("Received 512 bytes from rack RX"), 1u);
    EXPECT_EQ(occurrences("messages confused, fixing\n"), 0u);
}

}  // namespace
