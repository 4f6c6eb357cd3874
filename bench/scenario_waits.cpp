// The library and its callers waiting with nothing to do: the library at
// rest, a waiting SCardGetStatusChangeA and a SCardTransmit to a slow card,
// and waiting calls beside threads that exchange.
#include <atomic>
#include <chrono>
#include <thread>

#include "bench/measuring.h"
#include "bench/scenarios.h"
#include "sim/rack_sim.h"

namespace bench {

namespace {

// Threads that wait in SCardGetStatusChangeA on readers whose state does not
// change, again and again, until stopped.
class Waiters {
public:
    Waiters(const Rig& rig, int firstAddress, int count)
    {
        for (int i = 0; i < count; ++i) names_.push_back(readerName(rig.serial, firstAddress + i));
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this, &rig, i] {
                SCARD_READERSTATEA state{};
                state.szReader = names_[static_cast<size_t>(i)].c_str();
                // What the reader holds now (a connected card is in use),
                // fed back whole, as clients do: the call then waits.
                SCardGetStatusChangeA(rig.context, 0, &state, 1);
                while (!stop_.load()) {
                    state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
                    SCardGetStatusChangeA(rig.context, 500, &state, 1);
                    calls_.fetch_add(1);
                }
            });
        }
    }
    ~Waiters()
    {
        stop_.store(true);
        for (auto& t : threads_) t.join();
    }
    long calls() const { return calls_.load(); }

private:
    std::vector<std::string> names_;
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<long> calls_{0};
};

}  // namespace

void measureAtRest(Run& run, const Workload& w, const Progress& step)
{
    step("library at rest");
    double idle0 = processCpuMs();
    std::this_thread::sleep_for(std::chrono::duration<double>(w.idleWindowS));
    run.idleCpuPerS = (processCpuMs() - idle0) / w.idleWindowS;
}

// Each call runs on a thread of its own, whose processor time over the wait
// is the figure.
void measureWaits(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                  const Progress& step)
{
    step("a waiting SCardGetStatusChangeA");
    std::thread([&] {
        std::string name = readerName(rig.serial, 40);
        SCARD_READERSTATEA state{};
        state.szReader = name.c_str();
        // The reader's state as it is (its card is connected, so in use).
        SCardGetStatusChangeA(rig.context, 0, &state, 1);
        state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
        double cpu0 = ownThreadCpuMs(), proc0 = processCpuMs();
        Clock::time_point start = Clock::now();
        run.waitResult = SCardGetStatusChangeA(rig.context, w.waitMs, &state, 1);
        run.waitWall = msSince(start);
        run.waitThreadCpu = ownThreadCpuMs() - cpu0;
        run.waitProcess = processCpuMs() - proc0;
    }).join();

    step("a SCardTransmit waiting on a slow card");
    const int slowSlot = 41;
    rackSimSetCardDelayMs(rig.device, slowSlot, w.waitMs);
    std::thread([&] {
        BYTE answer[64];
        DWORD length = sizeof answer;
        double cpu0 = ownThreadCpuMs();
        Clock::time_point start = Clock::now();
        run.transmitWaitResult = SCardTransmit(handles[slowSlot - 1], &g_rgSCardT1Pci, kShortCommand.data(),
                                               static_cast<DWORD>(kShortCommand.size()), nullptr, answer, &length);
        run.transmitWaitWall = msSince(start);
        run.transmitWaitCpu = ownThreadCpuMs() - cpu0;
    }).join();
    rackSimSetCardDelayMs(rig.device, slowSlot, 0);
}

// 16 threads exchange on readers 1-16; in alternate windows 16 more wait on
// readers 17-32.
void measureWaitersBeside(Run& run, const Rig& rig, const std::vector<SCARDHANDLE>& handles, const Workload& w,
                          const Progress& step)
{
    step("16 exchanging threads with and without 16 waiting threads");
    for (int round = 0; round < 2; ++round) {
        run.alone.push_back(measureThroughput(handles, w.shortShape, kShortCommand, 16, w.window, w.warm));
        Waiters waiters(rig, 17, 16);
        run.withWaiters.push_back(measureThroughput(handles, w.shortShape, kShortCommand, 16, w.window, w.warm));
        run.waiterCalls += waiters.calls();
    }
    auto rateOf = [](const std::vector<Throughput>& runs) {
        double sum = 0;
        for (auto& r : runs) sum += r.rate;
        return sum / static_cast<double>(runs.size());
    };
    run.aloneRate = rateOf(run.alone);
    run.waitingRate = rateOf(run.withWaiters);
    run.drop = run.aloneRate > 0 ? (run.aloneRate - run.waitingRate) / run.aloneRate * 100.0 : 0;
}

}  // namespace bench
