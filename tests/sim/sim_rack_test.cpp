// The rack's answers at the byte level: master, slots, card commands,
// responders, card events and the host's byte stream.
#include "sim_host.h"

#include <functional>
#include <iterator>

using namespace simtest;

namespace {

const Bytes kAtr{0x3B, 0x00};

class SimRack : public SimOpenRack {
protected:
    // Puts a card in and takes the event frame it causes off the line.
    void insert(int address, const Bytes& atr)
    {
        rackSimInsertCard(rack, address, atr.data(), static_cast<int>(atr.size()));
        readNow();
    }
    void mute(int address)
    {
        rackSimMuteCard(rack, address);
        readNow();
    }
    Bytes command(uint8_t address, const Bytes& apdu) { return exchange(hostFrame(address, 0x40, apdu)); }
};

// ---- Master ---------------------------------------------------------------

TEST_F(SimRack, MasterTakesResetSilentlyReportsTheSlotMapAndConfirmsCollection)
{
    EXPECT_EQ(exchange({0x55, 0x00, 0x00, 0xF0, 0xBB}), Bytes{});

    rackSimSetSlotMapByte(rack, 3, 0x15);
    rackSimSetSlotMapByte(rack, 5, 0x04);
    rackSimSetSlotMapByte(rack, 240, 0x03);
    rackSimSetSlotMapByte(rack, 241, 0x01);  // no such address: ignored
    Bytes reply = exchange({0x55, 0x00, 0x00, 0xC1, 0xEA});
    ASSERT_EQ(reply.size(), 245u);
    EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 4), (Bytes{0x55, 0x00, 0xF0, 0xC5}));
    Bytes expected(240, 0x00);
    expected[0] = expected[1] = expected[3] = 0x01;
    expected[2] = 0x15;
    expected[4] = 0x04;
    expected[239] = 0x03;
    EXPECT_EQ(Bytes(reply.begin() + 4, reply.end() - 1), expected);
    EXPECT_TRUE(sumsToZero(reply));

    // Status collected is confirmed by its own frame; other commands are not
    // answered.
    EXPECT_EQ(exchange({0x55, 0x00, 0x00, 0xC2, 0xE9}), (Bytes{0x55, 0x00, 0x00, 0xC2, 0xE9}));
    EXPECT_EQ(exchange(hostFrame(0x00, 0xC3)), Bytes{});
    EXPECT_EQ(exchange(hostFrame(0x00, 0x00)), Bytes{});
}

// A power cycle drops what was on its way to the host and the master then
// announces its slot map unasked; asked again, it sends it again.
TEST_F(SimRack, PowerCycleDropsTheLineAndAnnouncesTheSlotMap)
{
    write(hostFrame(0x01, 0x01));
    rackSimPowerCycle(rack);
    const Bytes announced = readBytes(245);
    ASSERT_EQ(announced.size(), 245u);
    EXPECT_EQ(Bytes(announced.begin(), announced.begin() + 4), (Bytes{0x55, 0x00, 0xF0, 0xC5}));
    EXPECT_EQ(queued(), 0u) << "nothing of before the power cycle is left";
    EXPECT_EQ(exchange({0x55, 0x00, 0x00, 0xC1, 0xEA}), announced);
}

// ---- Slot requests ---------------------------------------------------------

TEST_F(SimRack, EverySlotRequestIsAcknowledgedThenAnsweredByTheSlotState)
{
    // R1 empty, R2 mute, R3 a card. A status request, a protocol selection
    // (which resets the card) and a card command each get the acknowledge
    // and then the slot's state; only a card answers the command.
    mute(2);
    insert(3, kAtr);
    const Bytes states[3] = {hostFrame(1, 0x01), hostFrame(2, 0x03), hostFrame(3, 0x05, kAtr)};
    for (const Bytes& request : {Bytes{0x00}, Bytes{0x20}, Bytes{0x60}, Bytes{0x40, 0x00, 0xA4}})
        for (uint8_t a = 1; a <= 3; ++a) {
            SCOPED_TRACE("command " + std::to_string(request[0]) + " to slot " + std::to_string(a));
            const Bytes reply = request[0] == 0x40 && a == 3 ? hostFrame(3, 0x04, {0x90, 0x00}) : states[a - 1];
            EXPECT_EQ(exchange(hostFrame(a, request[0], Bytes(request.begin() + 1, request.end()))),
                      concat({hostFrame(a, 0x06), reply}));
        }
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_COMMANDS_ANSWERED), 1);
}

TEST_F(SimRack, OnlySlotsWhoseMapByteNamesAReaderAnswerUnlessMadeTo)
{
    rackSimSetSlotMapByte(rack, 5, 0x04);
    rackSimSetSlotMapByte(rack, 6, 0x31);  // the high four bits don't count
    rackSimSetSlotMapByte(rack, 7, 0x15);
    rackSimSetSlotMapByte(rack, 4, 0x00);  // populated before, now empty
    for (uint8_t a : {4, 5, 7, 100}) EXPECT_EQ(exchange(hostFrame(a, 0x00)), Bytes{}) << int(a);
    EXPECT_EQ(exchange(hostFrame(6, 0x00)), (Bytes{0x55, 0x06, 0x00, 0x06, 0x9F, 0x55, 0x06, 0x00, 0x01, 0xA4}));

    // A slot can be made to answer or keep silent whatever its map byte,
    // and the map still reports the bytes as set.
    rackSimSetSlotAnswers(rack, 7, 1);
    rackSimSetSlotAnswers(rack, 1, 0);
    EXPECT_EQ(exchange(hostFrame(7, 0x00)), (Bytes{0x55, 0x07, 0x00, 0x06, 0x9E, 0x55, 0x07, 0x00, 0x01, 0xA3}));
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), Bytes{});
    Bytes map = exchange({0x55, 0x00, 0x00, 0xC1, 0xEA});
    ASSERT_EQ(map.size(), 245u);
    EXPECT_EQ(map[4 + 6], 0x15);
    EXPECT_EQ(map[4 + 0], 0x01);
    rackSimSetSlotAnswers(rack, 7, -1);
    rackSimSetSlotAnswers(rack, 1, -1);
    EXPECT_EQ(exchange(hostFrame(7, 0x00)), Bytes{});
    EXPECT_EQ(exchange(hostFrame(1, 0x00)).size(), 10u);
}

// ---- Card commands --------------------------------------------------------

// Each answer comes whole after the acknowledge: 55 01, the length, 04 and
// the data; from 256 bytes on the extended form, with the length's low
// byte, 0D and its high byte. The frames are written out in full.
TEST_F(SimRack, AnswersOf256BytesOrMoreTakeTheExtendedForm)
{
    insert(1, kAtr);
    const struct {
        size_t size;
        Bytes header;
    } cases[] = {{255, {0x55, 0x01, 0xFF, 0x04}},
                 {256, {0x55, 0x01, 0x00, 0x0D, 0x01}},
                 {300, {0x55, 0x01, 0x2C, 0x0D, 0x01}},
                 {1505, {0x55, 0x01, 0xE1, 0x0D, 0x05}},
                 {4096, {0x55, 0x01, 0x00, 0x0D, 0x10}}};
    for (const auto& c : cases) {
        Bytes answer(c.size);
        for (size_t i = 0; i < c.size; ++i) answer[i] = static_cast<uint8_t>(i * 7);
        rackSimSetFixedAnswer(rack, 1, answer.data(), static_cast<int>(c.size));
        EXPECT_EQ(command(1, {0x00, 0xB0, 0x00, 0x00, 0x00}),
                  concat({{0x55, 0x01, 0x00, 0x06, 0xA4}, withChecksum(concat({c.header, answer}))}))
            << c.size;
    }
}

// ---- Responders -----------------------------------------------------------

// Each step sets a responder up (or not) and sends one command; the answer
// frame follows the acknowledge. The set answer status shows in byte 3.
TEST_F(SimRack, EchoFixedAndTableRespondersAndTheSetAnswerStatus)
{
    insert(1, kAtr);
    const uint8_t fixed[] = {0x6A, 0x82}, other[] = {0x90, 0x00};
    const uint8_t select[] = {0x00, 0xA4, 0x04, 0x00}, selected[] = {0x61, 0x10};
    const uint8_t read[] = {0x00, 0xB0}, data[] = {0x01, 0x02, 0x90, 0x00};
    const struct {
        std::function<void()> setUp;
        Bytes command, answer;
    } steps[] = {
        {[] {}, {0x00, 0x84, 0x00, 0x00, 0x08}, {0x55, 0x01, 0x02, 0x04, 0x90, 0x00, 0x14}},
        {[&] { rackSimSetAnswerStatus(rack, 1, 0x02); }, {}, {0x55, 0x01, 0x02, 0x02, 0x90, 0x00, 0x16}},
        {[&] { rackSimSetAnswerStatus(rack, 1, 0x04); }, {0x00, 0x84}, {0x55, 0x01, 0x02, 0x04, 0x90, 0x00, 0x14}},
        {[&] { rackSimSetEcho(rack, 1); }, {0x00, 0x55, 0x0D}, {0x55, 0x01, 0x03, 0x04, 0x00, 0x55, 0x0D, 0x41}},
        {[&] { rackSimSetFixedAnswer(rack, 1, fixed, 2); }, {0x01}, {0x55, 0x01, 0x02, 0x04, 0x6A, 0x82, 0xB8}},
        {[&] { rackSimSetFixedAnswer(rack, 1, nullptr, 0); }, {0x01}, {0x55, 0x01, 0x00, 0x04, 0xA6}},
        {[&] {
             rackSimAddTableEntry(rack, 1, select, 4, selected, 2);
             rackSimAddTableEntry(rack, 1, read, 2, data, 4);
         },
         {0x00, 0xA4, 0x04, 0x00},
         {0x55, 0x01, 0x02, 0x04, 0x61, 0x10, 0x33}},
        {[] {}, {0x00, 0xB0}, {0x55, 0x01, 0x04, 0x04, 0x01, 0x02, 0x90, 0x00, 0x0F}},
        {[] {}, {0x00, 0xB0, 0x00}, {0x55, 0x01, 0x02, 0x04, 0x6D, 0x00, 0x37}},
        // A second entry for the same command replaces the first.
        {[&] { rackSimAddTableEntry(rack, 1, select, 4, other, 2); },
         {0x00, 0xA4, 0x04, 0x00},
         {0x55, 0x01, 0x02, 0x04, 0x90, 0x00, 0x14}},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].setUp();
        EXPECT_EQ(command(1, steps[i].command), concat({{0x55, 0x01, 0x00, 0x06, 0xA4}, steps[i].answer})) << i;
    }
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_COMMANDS_ANSWERED), static_cast<int>(std::size(steps)));
}

// A card's delay holds its answer but not the acknowledge, and a reset
// drops an answer still being worked on.
TEST_F(SimRack, CardDelayHoldsTheAnswerButNotTheAcknowledge)
{
    insert(1, kAtr);
    insert(2, kAtr);
    rackSimSetCardDelayMs(rack, 1, 150);
    auto start = Clock::now();
    write(hostFrame(1, 0x40, {0x00, 0x84}));
    // The acknowledge is there at once; another slot is served meanwhile.
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x01, 0x00, 0x06, 0xA4}));
    write(hostFrame(2, 0x00));
    EXPECT_EQ(readBytes(12), (Bytes{0x55, 0x02, 0x00, 0x06, 0xA3, 0x55, 0x02, 0x02, 0x05, 0x3B, 0x00, 0x67}));

    EXPECT_EQ(readBytes(7), (Bytes{0x55, 0x01, 0x02, 0x04, 0x90, 0x00, 0x14}));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));

    start = Clock::now();
    write(hostFrame(1, 0x40, {0x00, 0x84}));
    EXPECT_EQ(readBytes(5), (Bytes{0x55, 0x01, 0x00, 0x06, 0xA4}));
    EXPECT_EQ(exchange({0x55, 0x00, 0x00, 0xF0, 0xBB}), Bytes{});
    std::this_thread::sleep_until(start + std::chrono::milliseconds(300));
    EXPECT_EQ(readNow(), Bytes{});
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_COMMANDS_ANSWERED), 1);
}

// ---- Card events ----------------------------------------------------------

// The event frames of an open device are read by the library's card state
// tests; here, what makes no event and what waits for a request.
TEST_F(SimRack, CardEventsWithBadArgumentsAreNoneAndWhileClosedWaitForARequest)
{
    // Slots without a reader say nothing, and bad arguments change nothing.
    rackSimInsertCard(rack, 9, kAtr.data(), 2);
    rackSimInsertCard(rack, 2, kAtr.data(), 0);
    rackSimInsertCard(rack, 2, kAtr.data(), 65);
    rackSimInsertCard(rack, 0, kAtr.data(), 2);
    rackSimInsertCard(rack + 1, 2, kAtr.data(), 2);
    EXPECT_EQ(readNow(), Bytes{});
    EXPECT_EQ(exchange(hostFrame(2, 0x00)), (Bytes{0x55, 0x02, 0x00, 0x06, 0xA3, 0x55, 0x02, 0x00, 0x01, 0xA8}));

    // While the device is closed an event is only seen by the next status request.
    FT_Close(handle);
    rackSimInsertCard(rack, 1, kAtr.data(), 2);
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR000001"), FT_OPEN_BY_SERIAL_NUMBER, &handle), FT_OK);
    EXPECT_EQ(readNow(), Bytes{});
    EXPECT_EQ(exchange(hostFrame(1, 0x00)),
              (Bytes{0x55, 0x01, 0x00, 0x06, 0xA4, 0x55, 0x01, 0x02, 0x05, 0x3B, 0x00, 0x68}));
}


// ---- The host's byte stream ----------------------------------------------

TEST_F(SimRack, HostFramesMayBeSplitOrJoinedAndBadBytesAreSkipped)
{
    Bytes frame = hostFrame(1, 0x00);
    for (size_t i = 0; i + 1 < frame.size(); ++i) {
        write({frame[i]});
        EXPECT_EQ(queued(), 0u) << "answered before byte " << i + 1;
    }
    write({frame.back()});
    EXPECT_EQ(readNow(), (Bytes{0x55, 0x01, 0x00, 0x06, 0xA4, 0x55, 0x01, 0x00, 0x01, 0xA9}));

    // Two frames in one write, and one cut in the middle of another.
    Bytes two = concat({hostFrame(1, 0x00), hostFrame(2, 0x00), {0x55, 0x03}});
    EXPECT_EQ(exchange(two), (Bytes{0x55, 0x01, 0x00, 0x06, 0xA4, 0x55, 0x01, 0x00, 0x01, 0xA9, 0x55, 0x02, 0x00,
                                    0x06, 0xA3, 0x55, 0x02, 0x00, 0x01, 0xA8}));
    EXPECT_EQ(exchange({0x00, 0x00, 0xA8}), (Bytes{0x55, 0x03, 0x00, 0x06, 0xA2, 0x55, 0x03, 0x00, 0x01, 0xA7}));
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_FRAMES_FROM_HOST), 4);

    // Bytes before a sync and frames with a wrong checksum are ignored.
    EXPECT_EQ(exchange({0x00, 0xFF, 0x13}), Bytes{});
    Bytes bad = hostFrame(1, 0x00);
    bad.back() ^= 0x01;
    EXPECT_EQ(exchange(bad), Bytes{});
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_BAD_FRAMES_FROM_HOST), 1);
    EXPECT_EQ(rackSimCounter(rack, RACKSIM_FRAMES_FROM_HOST), 4);

    // The stream is back in step for the next frame.
    EXPECT_EQ(exchange(hostFrame(1, 0x00)), (Bytes{0x55, 0x01, 0x00, 0x06, 0xA4, 0x55, 0x01, 0x00, 0x01, 0xA9}));
}


}  // namespace
