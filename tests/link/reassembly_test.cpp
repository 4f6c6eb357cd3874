// The receive path against a byte stream with no message boundaries. The
// frame assembler is driven straight by tables of byte streams, pieces as
// they reach the device's queue, and the transcript they leave in the log:
// frames handed on, traces, give-ups. A few cases need the rack's own
// receive loop against the emulator.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "diag/text.h"
#include "link/frame_assembler.h"
#include "link/rack_frame.h"
#include "reader/reader.h"
#include "support/rack_fixture.h"

namespace {

using namespace test_support;
using Bytes = std::vector<uint8_t>;

constexpr int64_t kPollMs = 5;
constexpr int64_t kLateMs = FrameAssembler::quietLimitMs + 1;

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes slice(const Bytes& bytes, size_t from, size_t to = SIZE_MAX)
{
    return Bytes(bytes.begin() + from, bytes.begin() + std::min(to, bytes.size()));
}

Bytes extendedFrame(uint8_t address, const Bytes& data)
{
    Bytes frame{0x55, address, static_cast<uint8_t>(data.size()), 0x0D, static_cast<uint8_t>(data.size() >> 8)};
    frame = frame + data;
    frame.push_back(frameChecksum(frame.data(), static_cast<uint32_t>(frame.size())));
    return frame;
}
Bytes counting(size_t n, uint8_t period)
{
    Bytes data(n);
    for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i % period);
    return data;
}

// A frame as the transcript shows it: whole if short, else its head, its
// last byte and its size.
std::string shown(const uint8_t* frame, uint32_t size)
{
    if (size <= 16) return hexDump(frame, static_cast<int32_t>(size));
    return hexDump(frame, 5) + ".. " + hexDump(frame + size - 1, 1) + "(" + decimalText(size) + ")";
}
std::string handed(const Bytes& frame) { return "frame " + shown(frame.data(), static_cast<uint32_t>(frame.size())) + "\n"; }

const Bytes kCardIn3 = slotFrame(3, 0x05, {0x3B, 0x00});  // 55 03 02 05 3b 00 66
const Bytes kCardIn2 = slotFrame(2, 0x05, {0x3B, 0x01});
const Bytes kTruncated{0x55, 0x02, 0x20, 0x05, 0x3B, 0x00};  // claims 32 data bytes
const Bytes kExtended = extendedFrame(3, Bytes(256, 0xA5));
// An answer of 256 bytes full of sync bytes: given up, its data would be
// taken for frames.
const Bytes kSyncRichAnswer = extendedFrame(1, counting(256, 0x57));
const Bytes kLong = extendedFrame(3, counting(1400, 0x50));        // 1,406 bytes
const Bytes kLargerThanScratch = extendedFrame(3, counting(1024, 0x50));  // 1,030 bytes
const Bytes kOversized = extendedFrame(2, Bytes(1600, 0x00));     // more than the buffer assembles

struct Piece {
    Bytes bytes;
    bool late = false;  // the receive thread comes back late to the queue
};
Piece late(Bytes bytes) { return Piece{std::move(bytes), true}; }
std::vector<Piece> oneByteAtATime(const Bytes& bytes)
{
    std::vector<Piece> pieces;
    for (uint8_t b : bytes) pieces.push_back(Piece{{b}});
    return pieces;
}
std::string times(int n, const std::string& text)
{
    std::string all;
    while (n-- > 0) all += text;
    return all;
}

struct Stream {
    const char* name;
    std::vector<Piece> pieces;
    // "then" starts each piece after the first, "quiet" the link's silence
    // of more than the watchdog's limit, "held" what is left at the end.
    std::string transcript;
};

void PrintTo(const Stream& stream, std::ostream* out) { *out << stream.name; }

const std::vector<Stream> kStreams = {
    {"OneFrame", {{kCardIn3}}, handed(kCardIn3) + "quiet\n"},
    {"BytesOneAtATime", oneByteAtATime(kCardIn3), times(6, "then\n") + handed(kCardIn3) + "quiet\n"},
    {"TwoFramesInOneRead",
     {{kCardIn2 + kCardIn3}},
     "Greater Than Expected Message Length\n" + handed(kCardIn2) + "MSGOFF: 7,rxMsgLastIndexOf: 14\n" +
         handed(kCardIn3) + "MSGOFF: 14,rxMsgLastIndexOf: 14\nquiet\n"},
    {"AFrameAndAHalfThenTheRest",
     {{kCardIn2 + slice(kCardIn3, 0, 5)}, {slice(kCardIn3, 5)}},
     "Greater Than Expected Message Length\n" + handed(kCardIn2) +
         "MSGOFF: 7,rxMsgLastIndexOf: 12\n2ND MESSAGE NOT COMPLETE\nShould copy bytes back\nthen\n" +
         handed(kCardIn3) + "quiet\n"},
    {"StrayBytesBeforeAFrameAreDroppedAndTheFrameGoesOnAtOnce",
     {{Bytes{0x00, 0x13, 0xAA} + kCardIn3}},
     handed(kCardIn3) + "quiet\n"},
    {"StrayBytesAloneAreDroppedSilently", {{{0x00, 0x13, 0xAA}}}, "quiet\n"},
    {"BytesBehindAFrameThatStartNoFrameAreSearchedAtOnce",
     {{kCardIn2 + Bytes{0x42} + kCardIn3}},
     "Greater Than Expected Message Length\n" + handed(kCardIn2) +
         "MSGOFF: 7,rxMsgLastIndexOf: 15\nShould copy bytes back\n" + handed(kCardIn3) + "quiet\n"},
    {"ASyncByteAndTwoMoreWaitWithoutASize", {{{0x55, 0x03, 0x02}}}, "quiet\nheld 55 03 02 \n"},
    // The lone sync byte behind a frame keeps the frame's size, so the
    // quiet link gives it up.
    {"ALoneSyncByteBehindAFrameIsGivenUpWhenTheLinkIsQuiet",
     {{kCardIn3 + Bytes{0x55}}},
     "Greater Than Expected Message Length\n" + handed(kCardIn3) +
         "MSGOFF: 7,rxMsgLastIndexOf: 8\n2ND MESSAGE NOT COMPLETE\nShould copy bytes back\nquiet\n"
         "messages confused, fixing\n"},
    {"ATruncatedFrameIsGivenUpWhenTheLinkIsQuietAndTheNextOneFound",
     {{kTruncated + kCardIn3}},
     "quiet\nmessages confused, fixing\n" + handed(kCardIn3)},
    {"ALatePassReadsTheRestOfAFrameThatWaitsInTheQueue",
     {{slice(kCardIn3, 0, 4)}, late(slice(kCardIn3, 4))},
     "then\n" + handed(kCardIn3) + "quiet\n"},
    {"ALatePassReadsTheRestOfALongAnswerFullOfSyncBytes",
     {{slice(kSyncRichAnswer, 0, 100)}, late(slice(kSyncRichAnswer, 100))},
     "then\n" + handed(kSyncRichAnswer) + "quiet\n"},
    {"ExtendedFrame", {{kExtended}}, handed(kExtended) + "quiet\n"},
    {"ExtendedFrameWithOnlyItsMarkerHeldAtFirst",
     {{slice(kExtended, 0, 4)}, {slice(kExtended, 4)}},
     "then\n" + handed(kExtended) + "quiet\n"},
    // Read 512 bytes at a time, it would stop at 1,024 held, short of its end.
    {"FrameOfMoreThanAThousandBytesIsCompletedAfterReadingStops", {{kLong}}, handed(kLong) + "quiet\n"},
    {"FrameLargerThanTheScratchCopyAmongSeveral",
     {{slice(kLargerThanScratch, 0, 600)}, {slice(kLargerThanScratch, 600) + kCardIn3}},
     "then\nGreater Than Expected Message Length\n" + handed(kLargerThanScratch) +
         "MSGOFF: 1030,rxMsgLastIndexOf: 1037\n" + handed(kCardIn3) + "MSGOFF: 1037,rxMsgLastIndexOf: 1037\nquiet\n"},
    {"FrameLargerThanTheBufferAssemblesIsGivenUpAtOnce",
     {{kOversized}, {kCardIn3}},
     "messages confused, fixing\nthen\n" + handed(kCardIn3) + "quiet\n"},
};

// The assembler behind a stand-in for the device's queue, passed over the
// way the receive loop passes over it, with a clock of its own.
class AssemblerStreams : public RackFixture, public ::testing::WithParamInterface<Stream> {
protected:
    FrameAssembler assembler{[](const uint8_t* frame, uint32_t size) {
        logWrite("frame " + shown(frame, size) + "\n");
    }};
    Bytes queue;
    int64_t now = 0;

    // One pass; whether it changed anything.
    bool pass()
    {
        uint32_t waiting = static_cast<uint32_t>(queue.size());
        uint32_t heldBefore = assembler.heldCount();
        if (assembler.shouldGiveUp(now, waiting)) assembler.giveUp();
        uint32_t read = 0;
        if (waiting > 0) {
            assembler.linkSeen(now);
            read = assembler.bytesToRead(waiting);
            assembler.append(queue.data(), read);
            queue.erase(queue.begin(), queue.begin() + read);
            assembler.parse();
        }
        return read > 0 || assembler.heldCount() != heldBefore;
    }
    void passesEvery(int64_t gapMs)
    {
        do now += gapMs;
        while (pass());
    }
};

TEST_P(AssemblerStreams, LeaveTheirTranscript)
{
    const Stream& stream = GetParam();
    for (size_t i = 0; i < stream.pieces.size(); ++i) {
        if (i > 0) logWrite("then\n");
        queue = queue + stream.pieces[i].bytes;
        now += stream.pieces[i].late ? kLateMs - kPollMs : 0;
        passesEvery(kPollMs);
    }
    logWrite("quiet\n");
    now += kLateMs - kPollMs;
    passesEvery(kLateMs);
    if (assembler.heldCount() > 0)
        logWrite("held " + hexDump(assembler.held(), static_cast<int32_t>(assembler.heldCount())) + "\n");
    EXPECT_EQ(logText(), stream.transcript);
}

INSTANTIATE_TEST_SUITE_P(Reassembly, AssemblerStreams, ::testing::ValuesIn(kStreams),
                         [](const ::testing::TestParamInfo<Stream>& info) { return info.param.name; });

struct GiveUpCase {
    const char* what;
    Bytes held;
    int64_t quietMs;
    uint32_t waiting;
    bool givesUp;
};

TEST(AssemblerGiveUp, DependsOnWhatIsHeldTheQuietAndTheBytesWaiting)
{
    const GiveUpCase cases[] = {
        {"a frame in progress, the link quiet", slice(kCardIn3, 0, 5), kLateMs, 0, true},
        {"a frame in progress, a late pass with its rest waiting", slice(kCardIn3, 0, 5), kLateMs, 2, false},
        {"a frame in progress, quiet just to the limit", slice(kCardIn3, 0, 5), kLateMs - 1, 0, false},
        {"nothing held", kCardIn3, 5000, 0, false},
        {"a sync byte and two more, no size yet", {0x55, 0x03, 0x02}, 5000, 0, false},
        {"reading stopped for a frame too large to assemble", slice(kOversized, 0, 1024), 0, 600, true},
        {"reading stopped short of a frame that fits", slice(kLong, 0, 1024), 0, 382, false},
    };
    for (const GiveUpCase& c : cases) {
        SCOPED_TRACE(c.what);
        FrameAssembler assembler{[](const uint8_t*, uint32_t) {}};
        assembler.linkSeen(0);
        for (size_t at = 0; at < c.held.size(); at += FrameAssembler::largestRead) {
            Bytes piece = slice(c.held, at, at + FrameAssembler::largestRead);
            assembler.append(piece.data(), static_cast<uint32_t>(piece.size()));
            assembler.parse();
        }
        EXPECT_EQ(assembler.shouldGiveUp(c.quietMs, c.waiting), c.givesUp);
    }
}

// The rack's receive loop against the emulator.
class Reassembly : public OneRackFixture {
protected:
    void SetUp() override
    {
        OneRackFixture::SetUp();
        startRack("RX", 3);
    }
    bool hasCard(int address) { return reader(address)->cardState() == kStateCard; }
};

TEST_F(Reassembly, BytesOneAtATimeAreTracedAsTheyComeAndMakeOneFrame)
{
    rackSimSetDeviceFault(device_, RACKSIM_BYTE_AT_A_TIME, 1);
    inject(device_, kCardIn3);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    std::string log = logText();
    EXPECT_NE(log.find("Received 1 bytes from rack RX: 55 \n"), std::string::npos);
    EXPECT_NE(log.find("Received 7 bytes from rack RX: 55 03 02 05 3b 00 66 \n"), std::string::npos);
    EXPECT_NE(log.find("Smart card rack RX reader 3 RX - 55 03 02 05 3b 00 66 \n"), std::string::npos);
}

TEST_F(Reassembly, ReceiveThreadBackLateReadsTheRestOfAFrameBeforeJudgingTheLinkQuiet)
{
    // The master's slot map holds the receive thread for its 3 s pause
    // before the status requests, as a descheduled thread is held. The
    // first read takes the map and 267 bytes of the answer behind it; the
    // answer's last 33 bytes wait in the device's queue all that time.
    Bytes emptyMap = slotFrame(0, 0xC5, Bytes(240, 0x00));
    Bytes answer = extendedFrame(3, counting(294, 0x57));
    inject(device_, emptyMap + answer);
    ASSERT_TRUE(waitUntil([&] { return occurrences("reader 3 RX - " + hexDump(answer.data(), 300)) == 1; }));
    EXPECT_EQ(occurrences("Received 512 bytes from rack RX"), 1u);
    EXPECT_EQ(occurrences("messages confused, fixing\n"), 0u);
}

TEST_F(Reassembly, FrameLongerThanTheBufferCanHoldNoLongerJamsTheRack)
{
    long long before = rackSimCounter(device_, RACKSIM_BYTES_TO_HOST);
    inject(device_, kOversized);
    ASSERT_TRUE(waitUntil([&] {
        return rackSimCounter(device_, RACKSIM_BYTES_TO_HOST) == before + static_cast<long long>(kOversized.size());
    })) << "the rack stopped taking bytes from the device";
    inject(device_, kCardIn3);
    ASSERT_TRUE(waitUntil([&] { return hasCard(3); }));
    EXPECT_EQ(reader(2)->cardState(), kStateNoCard);
}

}  // namespace
