// Stress: many host threads in the API at once. Two racks of 32 readers
// with echo cards, 32 threads each exchanging with a reader of its own,
// alone and beside processes that take every processor they can get; and
// the bring-up of two racks while host threads already list readers, ask
// for status changes and establish contexts.
#include "robustness_support.h"
#include "pcsc/connection_table.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/test_seam.h"

namespace robustness {
namespace {

// Under a sanitizer every exchange costs several times more (the full
// count takes about 35 s under ThreadSanitizer on two busy cores); there
// each thread does 200 exchanges instead of 500, with the same threads,
// racks and readers. The native build runs the full count.
#ifdef TESSEL_SANITIZED_BUILD
constexpr int kExchangesPerThread = 200;
#else
constexpr int kExchangesPerThread = 500;
#endif
constexpr int kThreads = 32;
constexpr int kSlotsPerRack = 32;

class Stress : public EchoRackFixture {
protected:
    // Thousands of exchanges write hundreds of thousands of trace entries;
    // nothing here reads them, so they go nowhere.
    void discardLog()
    {
        platform::testing::setLogFilePath("/dev/null");
        std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
        g_logPath.clear();
    }
};

// Thread `thread`'s command number `n`: both numbers in the head, then a
// length (below `spread` more bytes) and a filling that depend on both, so
// that no two commands of the run are equal and an answer names the command
// it belongs to.
Bytes stressCommand(int thread, int n, int spread)
{
    Bytes command{0x80, 0x42, static_cast<uint8_t>(thread), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
    const size_t extra = static_cast<size_t>((thread * 7 + n * 13) % spread);
    for (size_t i = 0; i < extra; ++i) command.push_back(static_cast<uint8_t>(thread * 31 + n * 3 + i));
    return command;
}

// Child processes that spin for as long as they live, so that the library's
// threads get the processors only in the scheduler's turns, as on a loaded
// machine. They die with this object, or with this process if it is killed.
class ProcessorHogs {
public:
    explicit ProcessorHogs(int count)
    {
        const pid_t parent = getpid();
        for (int i = 0; i < count; ++i) {
            pid_t child = fork();
            if (child == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                if (getppid() != parent) _exit(0);
                for (volatile unsigned long spin = 0;; spin = spin + 1) {
                }
            }
            if (child > 0) children_.push_back(child);
        }
    }
    ~ProcessorHogs()
    {
        for (pid_t child : children_) kill(child, SIGKILL);
        for (pid_t child : children_) waitpid(child, nullptr, 0);
    }
    size_t running() const { return children_.size(); }

private:
    std::vector<pid_t> children_;
};

struct StressLoad {
    const char* name;
    int hogs;               // spinning processes beside the test
    bool pacedWire;         // the line's 11,520 bytes/s each way and the chip's latency timer
    int exchangesPerThread;
    int commandSpread;      // a command is 5 bytes and fewer than this many more
};

// Beside the hogs the line is paced and commands run up to 250 bytes, so
// that answers come in several USB packets and a receive thread that the
// scheduler keeps away finds the rest of a frame waiting in the device's
// queue. Fewer exchanges keep the run near half a minute on a busy machine.
const StressLoad kStressLoads[] = {
    {"Alone", 0, false, kExchangesPerThread, 48},
    {"BesideTwoProcessorHogs", 2, true, 40, 246},
};

class StressUnderLoad : public Stress, public ::testing::WithParamInterface<StressLoad> {};

INSTANTIATE_TEST_SUITE_P(Loads, StressUnderLoad, ::testing::ValuesIn(kStressLoads),
                         [](const ::testing::TestParamInfo<StressLoad>& info) { return info.param.name; });

// Thirty-two threads on two racks, each on a reader of its own.
TEST_P(StressUnderLoad, EveryThreadGetsEveryAnswerOnceAndOnlyItsOwn)
{
    const StressLoad load = GetParam();
    const int racks = 2, threads = kThreads, exchanges = load.exchangesPerThread, spread = load.commandSpread;
    std::vector<int> devices;
    for (int r = 0; r < racks; ++r) devices.push_back(echoRack(r == 0 ? "S1" : "S2", kSlotsPerRack));
    ProcessorHogs hogs(load.hogs);
    ASSERT_EQ(hogs.running(), static_cast<size_t>(load.hogs));
    startLibrary(static_cast<size_t>(racks));
    if (HasFatalFailure()) return;
    // Only the watchdog's entry is looked for, and only where the line is
    // paced; elsewhere the log goes nowhere.
    if (load.pacedWire) {
        clearLog();
        for (int device : devices) rackSimSetWireRealism(device, 1);
    } else {
        discardLog();
    }
    for (int device : devices) rackSimClearWireLog(device);

    // Thread t works on rack t % racks, on the slot t / racks + 1: every
    // thread on a reader of its own. Each counts its own commands that
    // came back whole, and keeps its first failure; the head of a wrong
    // answer names the thread and the command it belonged to.
    std::vector<int> answered(static_cast<size_t>(threads), 0);
    std::vector<std::string> firstProblem(static_cast<size_t>(threads));
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, exchanges, spread, &answered, &firstProblem] {
            SCARDHANDLE handle = connect(readerName(t % racks == 0 ? "S1" : "S2", t / racks + 1));
            for (int n = 0; n < exchanges; ++n) {
                const Bytes command = stressCommand(t, n, spread);
                Exchange e = transmit(handle, command, 300);
                const Bytes answer = e.answer();
                if (e.result == SCARD_S_SUCCESS && answer == command) {
                    ++answered[t];
                    continue;
                }
                if (firstProblem[t].empty())
                    firstProblem[t] = "command " + std::to_string(n) + ": result " + std::to_string(e.result) +
                                      ", answer " + hexText(answer);
            }
        });
    }
    for (auto& worker : workers) worker.join();
    for (int t = 0; t < threads; ++t)
        EXPECT_EQ(answered[t], exchanges) << "thread " << t << ", first problem " << firstProblem[t];

    // Each command went out exactly once, to its own slot, and the cards
    // answered exactly as many as were sent, one message at a time per bus.
    for (int r = 0; r < racks; ++r) {
        const int device = devices[static_cast<size_t>(r)];
        EXPECT_EQ(rackSimCounter(device, RACKSIM_COMMANDS_ANSWERED), threads / racks * exchanges) << r;
        EXPECT_EQ(rackSimCounter(device, RACKSIM_BUS_VIOLATIONS), 0) << r;
        EXPECT_EQ(rackSimCounter(device, RACKSIM_BAD_FRAMES_FROM_HOST), 0) << r;
        std::vector<int> perSlot(kSlotsPerRack + 1, 0);
        for (const Bytes& frame : wireLog(device))
            if (frame.size() >= 5 && frame[3] == 0x40 && frame[1] >= 1 && frame[1] <= kSlotsPerRack) {
                ++perSlot[frame[1]];
                // The command in the frame is the one of the thread on that slot.
                EXPECT_EQ(frame[6], static_cast<uint8_t>((frame[1] - 1) * racks + r)) << "slot " << int(frame[1]);
            }
        for (int a = 1; a <= kSlotsPerRack; ++a)
            EXPECT_EQ(perSlot[a], a <= threads / racks ? exchanges : 0) << "rack " << r << " slot " << a;
        EXPECT_FALSE(g_racks[r]->isLocked());
        EXPECT_EQ(g_racks[r]->queuedTurns(), 0u);
    }
    // On a paced line the rest of a frame is always due within a few
    // milliseconds, long before the watchdog's limit: a frame given up here
    // was given up while its bytes waited in the device's queue.
    if (load.pacedWire) {
        EXPECT_EQ(countOf(test_support::readFile(logPath_), "messages confused, fixing"), 0u);
    }
}

TEST_F(Stress, BringUpWhileHostThreadsAlreadyCallTheApi)
{
    const std::vector<uint8_t> atr = test_support::atrT1();
    for (const char* serial : {"B1", "B2"}) {
        int device = addRack(serial, kSlotsPerRack);
        for (int a = 1; a <= kSlotsPerRack; a += 2) insertCard(device, a, atr);
    }
    std::atomic<bool> stop{false};
    std::atomic<bool> discoveryOver{false};
    std::atomic<int> started{0};  // threads that have entered their first call
    std::mutex problemsGuard;
    std::vector<std::string> problems;
    auto problem = [&](const std::string& text) {
        std::lock_guard<std::mutex> guard(problemsGuard);
        if (problems.size() < 20) problems.push_back(text);
    };
    std::atomic<int> listings{0}, statusCalls{0}, contexts{0};

    // A listing is, at every moment, the readers made so far: for each rack
    // in discovery order, its first readers in address order. It never
    // shrinks, and the size it reports is its own.
    // Listers and watchers call before the racks are up, so their context
    // cannot come from SCardEstablishContext, which waits for them.
    SCARDCONTEXT watchContext = 0;
    ASSERT_EQ(connection_table::openContext(watchContext), SCARD_S_SUCCESS);
    auto lister = [&](int id) {
        size_t seen = 0;
        ++started;
        while (!stop) {
            char* block = nullptr;
            DWORD size = SCARD_AUTOALLOCATE;
            LONG result = SCardListReadersA(watchContext, nullptr, reinterpret_cast<char*>(&block), &size);
            std::string listing;
            if (result == SCARD_S_SUCCESS) {
                listing.assign(block, size);
                SCardFreeMemory(1, block);
            } else if (result != static_cast<LONG>(SCARD_E_NO_READERS_AVAILABLE)) {
                problem("listing result " + std::to_string(result));
            }
            // As many of each rack's first readers as the listing names of that rack.
            std::string made;
            size_t count = 0;
            for (const std::string serial : {"B1", "B2"})
                for (size_t a = 1; a <= std::min<size_t>(countOf(listing, "Tessel " + serial + " "), kSlotsPerRack);
                     ++a, ++count)
                    made += readerName(serial, static_cast<int>(a)) + '\0';
            if (!listing.empty() && listing != made + '\0') problem("listing " + std::to_string(id) + ": " + listing);
            if (count < seen) problem("listing shrank");
            seen = count;
            ++listings;
            std::this_thread::yield();
        }
        if (seen != 2u * kSlotsPerRack) problem("last listing had " + std::to_string(seen) + " readers");
    };

    // A status change on a reader gives an unknown reader until the reader
    // is made, then no card until its status is collected, then the card
    // with its ATR; never back.
    auto watcher = [&](const std::string name) {
        int stage = 0;  // 0 unknown, 1 empty, 2 present
        ++started;
        while (!stop) {
            SCARD_READERSTATEA state{};
            state.szReader = name.c_str();
            state.dwCurrentState = SCARD_STATE_UNAWARE;
            LONG result = SCardGetStatusChangeA(watchContext, 0, &state, 1);
            int now = -1;
            if (result == static_cast<LONG>(SCARD_E_UNKNOWN_READER)) {
                now = 0;
            } else if (result == SCARD_S_SUCCESS && (state.dwEventState & SCARD_STATE_CHANGED)) {
                if ((state.dwEventState & SCARD_STATE_EMPTY) && state.cbAtr == 0) now = 1;
                if ((state.dwEventState & SCARD_STATE_PRESENT) && state.cbAtr == atr.size() &&
                    std::equal(atr.begin(), atr.end(), state.rgbAtr))
                    now = 2;
            }
            if (now < 0) problem(name + ": result " + std::to_string(result) + " state " +
                                 std::to_string(state.dwEventState));
            else if (now < stage) problem(name + ": went back to " + std::to_string(now));
            else stage = now;
            ++statusCalls;
            std::this_thread::yield();
        }
        if (stage != 2) problem(name + ": card never seen");
    };

    // A context established once discovery is over comes back with every
    // rack enumerated: the wait covers the rest of the bring-up.
    auto establisher = [&] {
        ++started;
        while (!stop) {
            const bool afterDiscovery = discoveryOver;
            SCARDCONTEXT context = 0xFFFFFFFF;
            LONG result = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
            if (result != SCARD_S_SUCCESS || static_cast<int32_t>(context) < 0)
                problem("establish " + std::to_string(result));
            if (afterDiscovery && !allRacksEnumerated()) problem("established before the racks were ready");
            if (result == SCARD_S_SUCCESS && SCardReleaseContext(context) != SCARD_S_SUCCESS) problem("release");
            ++contexts;
        }
    };

    std::vector<std::thread> threads;
    threads.emplace_back(lister, 1);
    threads.emplace_back(lister, 2);
    threads.emplace_back(watcher, "Tessel B1 R1");
    threads.emplace_back(watcher, "Tessel B2 R31");
    threads.emplace_back(establisher);
    threads.emplace_back(establisher);
    // Every thread is in the API before the library starts.
    ASSERT_TRUE(waitUntil([&] { return started == 6; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));

    KickOff();
    waitForDiscoveryThreads();
    discoveryOver = true;
    EXPECT_EQ(g_racks.size(), 2u);
    EXPECT_TRUE(waitUntil([] { return allRacksEnumerated(); }));
    // Each thread makes calls after the bring-up too.
    const int listed = listings, watched = statusCalls, established = contexts;
    EXPECT_TRUE(waitUntil([&] { return listings > listed + 2 && statusCalls > watched + 2 && contexts > established + 2; }));
    stop = true;
    for (auto& thread : threads) thread.join();

    for (const std::string& p : problems) ADD_FAILURE() << p;
}

// Soak: one rack of three is unplugged and plugged back again and again
// while a thread per reader exchanges on every rack. Short by default (three
// cycles); TESSEL_SOAK_SECONDS=60 runs it for a minute of real time. Pass:
// every answer is the echo of its own command (nothing lost into another
// call, nothing misdelivered), the racks that stay are never refused, the
// cycled rack's threads see only the results of a reader that went or of a
// write that met the pulled cable, each
// cycle brings the same readers back, and the process's resident memory
// does not grow with the cycles.
long residentKilobytes()
{
    long pages = 0, resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr) return 0;
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(Stress, RackUnpluggedAndPluggedBackWhileThreadsExchangeOnEveryRack)
{
    discardLog();
    const char* serials[] = {"S1", "S2", "S3"};
    constexpr int kSlots = 4;
    int cycled = -1;
    for (int r = 0; r < 3; ++r) {
        const int device = echoRack(serials[r], kSlots);
        if (r == 0) cycled = device;
    }
    startLibrary(3);
    const char* soak = std::getenv("TESSEL_SOAK_SECONDS");
    const int seconds = soak != nullptr ? std::atoi(soak) : 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);

    std::atomic<bool> stop{false};
    std::mutex problemsGuard;
    std::vector<std::string> problems;
    std::atomic<int> servedOnStayingRacks{0}, servedOnCycledRack{0};
    auto worker = [&](int rack, int slot, int thread) {
        SCARDHANDLE handle = 0;
        for (int n = 0; !stop; ++n) {
            if (handle == 0) {
                DWORD active = 0;
                const std::string name = readerName(serials[rack], slot);
                const LONG connected = SCardConnectA(pcsc_test::testContext(), name.c_str(), SCARD_SHARE_SHARED,
                                                     SCARD_PROTOCOL_T1, &handle, &active);
                if (connected != SCARD_S_SUCCESS) {
                    handle = 0;
                    if (rack != 0) {
                        std::lock_guard<std::mutex> hold(problemsGuard);
                        problems.push_back(name + ": connect " + std::to_string(connected));
                    }
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                    continue;
                }
            }
            const Bytes command = stressCommand(thread, n & 0xFFFF, 8);
            const Exchange e = transmit(handle, command);
            if (e.result == SCARD_S_SUCCESS && e.answer() == command) {
                ++(rack == 0 ? servedOnCycledRack : servedOnStayingRacks);
                continue;
            }
            // A write that meets the pulled cable before the loss is known
            // fails on its own (SCARD_E_NOT_TRANSACTED).
            const bool readerWent = e.result == SCARD_E_READER_UNAVAILABLE || e.result == SCARD_W_REMOVED_CARD ||
                                    e.result == SCARD_E_NOT_TRANSACTED;
            if (rack != 0 || e.result == SCARD_S_SUCCESS || !readerWent) {
                std::lock_guard<std::mutex> hold(problemsGuard);
                problems.push_back(readerName(serials[rack], slot) + ": transmit " + std::to_string(e.result));
            }
            SCardDisconnect(handle, SCARD_LEAVE_CARD);
            handle = 0;
        }
        if (handle != 0) SCardDisconnect(handle, SCARD_LEAVE_CARD);
    };
    std::vector<std::thread> threads;
    for (int r = 0; r < 3; ++r)
        for (int a = 1; a <= kSlots; ++a) threads.emplace_back(worker, r, a, r * kSlots + a);

    Reader* first = readerNamed(readerName("S1", 1));
    long memoryAfterFirstCycle = 0;
    for (int cycle = 0; cycle < 3 || std::chrono::steady_clock::now() < end; ++cycle) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rackSimUnplug(cycled);
        ASSERT_TRUE(waitUntil([&] { return g_racks[0]->lost(); }, std::chrono::seconds(10))) << cycle;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rackSimPlug(cycled);
        ASSERT_TRUE(waitUntil([&] { return !g_racks[0]->lost() && g_racks[0]->enumerated(); },
                              std::chrono::seconds(20)))
            << "no wedge: the rack comes back, cycle " << cycle;
        if (cycle == 0) memoryAfterFirstCycle = residentKilobytes();
    }
    const int cycledBefore = servedOnCycledRack;
    ASSERT_TRUE(waitUntil([&] { return servedOnCycledRack > cycledBefore + 10; }))
        << "the cycled rack serves its threads again";
    stop = true;
    for (auto& thread : threads) thread.join();

    for (const std::string& p : problems) ADD_FAILURE() << p;
    EXPECT_GT(servedOnStayingRacks.load(), 0);
    EXPECT_EQ(readerNamed(readerName("S1", 1)), first) << "the same reader objects";
    EXPECT_EQ(g_racks.size(), 3u);
    EXPECT_EQ(g_racks[0]->readers().size(), static_cast<size_t>(kSlots));
#ifndef TESSEL_SANITIZED_BUILD
    // Flat: a few megabytes of slack for the allocator and the threads'
    // stacks, far less than a leak per cycle over a long run would take.
    // A sanitized build keeps freed memory in its quarantine and shadow, so
    // its resident size grows without a leak; LeakSanitizer looks there.
    if (memoryAfterFirstCycle > 0) {
        EXPECT_LT(residentKilobytes(), memoryAfterFirstCycle + 8 * 1024);
    }
#else
    (void)memoryAfterFirstCycle;
#endif
}

}  // namespace
}  // namespace robustness
