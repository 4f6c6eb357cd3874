// SCardTransmit: the checks before anything goes out, the frame on the
// wire, short and extended answers, an answer longer than the host's
// buffer, the answer wait across the tick counter's wrap, and two threads
// sharing a reader. Time-outs and faults are in tests/robustness.
#include "pcsc_test_support.h"

#include <atomic>
#include <chrono>
#include <numeric>
#include <thread>

#include "platform/clock.h"
#include "platform/test_seam.h"

namespace pcsc_test {
namespace {

const std::vector<uint8_t> kSelect = {0x00, 0xA4, 0x04, 0x00};

class TransmitTest : public OneRackTest {
protected:
    void startReaders()
    {
        startRack({atrOnlyT1()});
        handle_ = connectTo("Tessel A1 R1", SCARD_PROTOCOL_T1);
        rack_ = rackOf("Tessel A1 R1");
        settle();
        rackSimClearWireLog(device_);
        clearLog();
    }

    LONG transmit(SCARDHANDLE handle, const std::vector<uint8_t>& command, Guarded<BYTE>& answer, DWORD& length)
    {
        length = static_cast<DWORD>(answer.size());
        return SCardTransmit(handle, &g_rgSCardT1Pci, command.data(), static_cast<DWORD>(command.size()), nullptr,
                             answer.data(), &length);
    }

    SCARDHANDLE handle_ = 0;
    Rack* rack_ = nullptr;
};

// Each argument fault is refused before anything goes out, with its result,
// its trace, and the answer length left as the host set it.
TEST_F(TransmitTest, ArgumentsAreCheckedBeforeAnythingGoesOut)
{
    startReaders();
    BYTE answer[16];
    const std::vector<uint8_t> tooLong(256, 0x11);
    struct Case {
        const char* what;
        SCARDHANDLE handle;
        const SCARD_IO_REQUEST* pci;
        const BYTE* command;
        DWORD commandLength;
        BYTE* answer;
        bool withLength;
        LONG result;
        std::string trace;
    };
    const Case cases[] = {
        {"no pci", handle_, nullptr, kSelect.data(), 4, answer, true, SCARD_E_INVALID_PARAMETER,
         "SCardTransmit\ninvalid param\n"},
        {"no command", handle_, &g_rgSCardT1Pci, nullptr, 4, answer, true, SCARD_E_INVALID_PARAMETER,
         "SCardTransmit\ninvalid param\n"},
        {"no answer buffer", handle_, &g_rgSCardT1Pci, kSelect.data(), 4, nullptr, true, SCARD_E_INVALID_PARAMETER,
         "SCardTransmit\ninvalid param\n"},
        {"no answer length", handle_, &g_rgSCardT1Pci, kSelect.data(), 4, answer, false, SCARD_E_INVALID_PARAMETER,
         "SCardTransmit\ninvalid param\n"},
        {"command too long", handle_, &g_rgSCardT1Pci, tooLong.data(), 256, answer, true, SCARD_E_INSUFFICIENT_BUFFER,
         "SCardTransmit\ninvalid length, cbSend: 256, pcbRecv: 300\n"},
        {"no such handle", 0x1234, &g_rgSCardT1Pci, kSelect.data(), 4, answer, true, SCARD_E_INVALID_HANDLE,
         "SCardTransmit\n"},
    };
    for (const Case& c : cases) {
        clearLog();
        DWORD length = 300;
        EXPECT_EQ(SCardTransmit(c.handle, c.pci, c.command, c.commandLength, nullptr, c.answer,
                                c.withLength ? &length : nullptr),
                  c.result)
            << c.what;
        EXPECT_EQ(length, 300u) << c.what;
        EXPECT_EQ(logText(), c.trace) << c.what;
    }
    EXPECT_TRUE(wireLog(device_).empty());
}

TEST_F(TransmitTest, AShortAnswerAndTheFramesOfShortAndEmptyCommands)
{
    startReaders();
    Guarded<BYTE> answer(16);
    DWORD length = 0;

    EXPECT_EQ(transmit(handle_, kSelect, answer, length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(answer.contents(2), (std::vector<uint8_t>{0x90, 0x00}));
    EXPECT_EQ(commandsTo(wireLog(device_), 1),
              (std::vector<std::vector<uint8_t>>{{0x55, 0x01, 0x04, 0x40, 0x00, 0xA4, 0x04, 0x00, 0xBE}}));

    // An empty command is a frame with the command byte alone.
    const BYTE nothing[1] = {0xFF};
    length = static_cast<DWORD>(answer.size());
    EXPECT_EQ(SCardTransmit(handle_, &g_rgSCardT1Pci, nothing, 0, nullptr, answer.data(), &length), SCARD_S_SUCCESS);
    auto frames = commandsTo(wireLog(device_), 1);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[1], (std::vector<uint8_t>{0x55, 0x01, 0x00, 0x40, 0x6A}));
}

TEST_F(TransmitTest, LongestCommandExtendedAnswersAndAnAnswerLongerThanTheBuffer)
{
    startReaders();
    rackSimSetEcho(device_, 1);
    std::vector<uint8_t> command(255);
    std::iota(command.begin(), command.end(), 0);
    Guarded<BYTE> answer(2048);
    DWORD length = 0;

    EXPECT_EQ(transmit(handle_, command, answer, length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 255u);
    EXPECT_EQ(answer.contents(255), command);
    ASSERT_EQ(commandsTo(wireLog(device_), 1).size(), 1u);
    EXPECT_EQ(commandsTo(wireLog(device_), 1)[0].size(), 260u);

    // Extended answers; one longer than the buffer is cut and reported whole.
    const struct {
        size_t size, room;
        LONG result;
    } answers[] = {{256, 256, SCARD_S_SUCCESS}, {1000, 1000, SCARD_S_SUCCESS}, {300, 100, SCARD_E_INSUFFICIENT_BUFFER}};
    for (const auto& a : answers) {
        SCOPED_TRACE(a.size);
        std::vector<uint8_t> data(a.size);
        for (size_t i = 0; i < a.size; ++i) data[i] = static_cast<uint8_t>(i * 7 + 3);
        rackSimSetFixedAnswer(device_, 1, data.data(), static_cast<int>(a.size));
        Guarded<BYTE> buffer(a.room);
        EXPECT_EQ(transmit(handle_, kSelect, buffer, length), a.result);
        EXPECT_EQ(length, a.size);
        EXPECT_EQ(buffer.contents(a.room), std::vector<uint8_t>(data.begin(), data.begin() + a.room));
        EXPECT_TRUE(buffer.guardIntact());
    }

    // The exchange is over: the next command gets its own answer.
    rackSimSetEcho(device_, 1);
    Guarded<BYTE> next(16);
    EXPECT_EQ(transmit(handle_, kSelect, next, length), SCARD_S_SUCCESS);
    EXPECT_EQ(next.contents(length), kSelect);
}

TEST_F(TransmitTest, TheAnswerWaitEndsAcrossTheWrapOfTheTickCounter)
{
    startReaders();
    rackSimSetSlotFault(device_, 1, RACKSIM_NO_ANSWER, 1);
    // Place the wrap of the 32-bit millisecond counter one second of
    // library time into the wait.
    platform::testing::setTickOffset(0);
    platform::testing::setTickOffset(0u - 1000u - platform::tickCount());

    Guarded<BYTE> answer(16);
    DWORD length = 0;
    auto start = std::chrono::steady_clock::now();
    LONG result = transmit(handle_, kSelect, answer, length);
    auto elapsed = std::chrono::steady_clock::now() - start;
    platform::testing::setTickOffset(0);

    EXPECT_EQ(result, SCARD_E_TIMEOUT);
    EXPECT_GE(elapsed, std::chrono::milliseconds(38000 / kTimeScale)) << "not cut short by the wrap";
    // The last clock reading was taken after the wrap: a small second count.
    const std::string text = logText();
    size_t at = text.find("Tessel A1 R1 Timeout - ");
    ASSERT_NE(at, std::string::npos);
    unsigned long seconds = std::stoul(text.substr(at + std::string("Tessel A1 R1 Timeout - ").size()));
    EXPECT_LT(seconds, 100u) << text.substr(at);
}

// The card leaves while its command is at work: the transmit ends at once
// with the card gone instead of waiting out its answer wait, and nothing
// more goes to the slot on that handle.
TEST_F(TransmitTest, ACardTakenOutDuringATransmitEndsItAtOnce)
{
    startReaders();
    // The card would work longer than the whole answer wait.
    rackSimSetCardDelayMs(device_, 1, 40000 / kTimeScale + 2000);
    Guarded<BYTE> answer(16);
    DWORD length = 0;
    LONG result = 0;
    std::thread caller([&] { result = transmit(handle_, kSelect, answer, length); });
    ASSERT_TRUE(waitUntil([&] { return readerNamed("Tessel A1 R1")->blocked() == 1; }));
    rackSimRemoveCard(device_, 1);
    caller.join();
    EXPECT_EQ(result, SCARD_W_REMOVED_CARD);
    EXPECT_TRUE(answer.untouched());
    EXPECT_EQ(logText().find("Timeout"), std::string::npos) << logText();
    EXPECT_NE(logText().find("Tessel A1 R1 Card gone\n"), std::string::npos) << logText();

    rackSimClearWireLog(device_);
    EXPECT_EQ(transmit(handle_, kSelect, answer, length), SCARD_W_REMOVED_CARD);
    EXPECT_TRUE(commandsTo(wireLog(device_), 1).empty());
}

TEST_F(TransmitTest, TwoThreadsOnOneReaderEachGetTheirOwnAnswers)
{
    startReaders();
    rackSimSetEcho(device_, 1);
    rackSimSetCardDelayMs(device_, 1, 1);
    constexpr int kCommandsPerThread = 40;
    std::atomic<int> matched{0};
    auto sender = [&](uint8_t thread) {
        for (int i = 0; i < kCommandsPerThread; ++i) {
            const std::vector<uint8_t> command = {0x80, 0xCA, thread, static_cast<uint8_t>(i), 0x5A};
            Guarded<BYTE> answer(32);
            DWORD length = 0;
            if (transmit(handle_, command, answer, length) == SCARD_S_SUCCESS && answer.contents(length) == command)
                ++matched;
        }
    };
    std::thread first(sender, 1), second(sender, 2);
    first.join();
    second.join();
    EXPECT_EQ(matched.load(), 2 * kCommandsPerThread);
    EXPECT_EQ(rackSimCounter(device_, RACKSIM_COMMANDS_ANSWERED), 2 * kCommandsPerThread);
    EXPECT_FALSE(rack_->isLocked());
}

}  // namespace
}  // namespace pcsc_test
