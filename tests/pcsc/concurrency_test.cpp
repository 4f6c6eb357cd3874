// Host threads transmitting at once: eight readers of one rack, four
// readers on each of two racks, and two threads sharing one reader. Every
// answer must reach the thread that sent its command.
#include "pcsc_test_support.h"

#include <atomic>
#include <thread>

namespace pcsc_test {
namespace {

constexpr int kCommandsPerThread = 40;

struct Target {
    int device;
    std::string serial;
    int address;
};

class ConcurrencyTest : public test_support::RackFixture {
protected:
    // Each thread sends commands that carry its own number and a sequence
    // number to an echo card, and counts the answers that are its own.
    void transmitFromThreads(const std::vector<Target>& targets)
    {
        std::vector<SCARDHANDLE> handles;
        for (const Target& t : targets) handles.push_back(connectTo(readerName(t.serial, t.address), 3));

        std::atomic<int> matched{0}, failed{0};
        std::vector<std::thread> threads;
        for (size_t n = 0; n < targets.size(); ++n) {
            threads.emplace_back([&, n] {
                for (int i = 0; i < kCommandsPerThread; ++i) {
                    const BYTE command[] = {0x80, 0xCA, static_cast<BYTE>(n), static_cast<BYTE>(i),
                                            static_cast<BYTE>(n ^ i), 0x5A};
                    BYTE answer[32] = {};
                    DWORD length = sizeof answer;
                    LONG result = SCardTransmit(handles[n], &g_rgSCardT1Pci, command, sizeof command, nullptr, answer,
                                                &length);
                    if (result == SCARD_S_SUCCESS && length == sizeof command &&
                        std::equal(command, command + sizeof command, answer))
                        ++matched;
                    else
                        ++failed;
                }
            });
        }
        for (auto& thread : threads) thread.join();

        EXPECT_EQ(failed.load(), 0);
        EXPECT_EQ(matched.load(), static_cast<int>(targets.size()) * kCommandsPerThread);
    }

    int echoRack(const std::string& serial, int slots)
    {
        int device = addRack(serial, slots);
        for (int a = 1; a <= slots; ++a) {
            insertCard(device, a, atrOnlyT1());
            rackSimSetEcho(device, a);
        }
        return device;
    }
};

TEST_F(ConcurrencyTest, EightThreadsOnEightReadersOfOneRack)
{
    int device = echoRack("A1", 8);
    startLibrary(1);
    rackSimClearWireLog(device);

    std::vector<Target> targets;
    for (int a = 1; a <= 8; ++a) targets.push_back({device, "A1", a});
    transmitFromThreads(targets);

    EXPECT_EQ(rackSimCounter(device, RACKSIM_COMMANDS_ANSWERED), 8 * kCommandsPerThread);
    EXPECT_EQ(rackSimCounter(device, RACKSIM_BUS_VIOLATIONS), 0);
    EXPECT_FALSE(g_racks[0]->isLocked());
}

TEST_F(ConcurrencyTest, EightThreadsOnFourReadersOfEachOfTwoRacks)
{
    int first = echoRack("A1", 4);
    int second = echoRack("B2", 4);
    startLibrary(2);
    rackSimClearWireLog(first);
    rackSimClearWireLog(second);

    std::vector<Target> targets;
    for (int a = 1; a <= 4; ++a) {
        targets.push_back({first, "A1", a});
        targets.push_back({second, "B2", a});
    }
    transmitFromThreads(targets);

    for (int device : {first, second}) {
        EXPECT_EQ(rackSimCounter(device, RACKSIM_COMMANDS_ANSWERED), 4 * kCommandsPerThread);
        EXPECT_EQ(rackSimCounter(device, RACKSIM_BUS_VIOLATIONS), 0);
    }
}

TEST_F(ConcurrencyTest, TwoThreadsOnOneReaderTakeTurns)
{
    int device = echoRack("A1", 1);
    rackSimSetCardDelayMs(device, 1, 1);
    startLibrary(1);
    rackSimClearWireLog(device);

    transmitFromThreads({{device, "A1", 1}, {device, "A1", 1}});
    EXPECT_EQ(rackSimCounter(device, RACKSIM_COMMANDS_ANSWERED), 2 * kCommandsPerThread);
}

}  // namespace
}  // namespace pcsc_test
