// Measures the byte rate of the rack emulator with wire realism on, in both
// directions, against the 11,520 bytes/s of 115,200 baud 8N1, and the time
// of one short exchange with the latency timer. Prints; asserts nothing.
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

#include "platform/d2xx.h"
#include "sim/rack_sim.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kLineRate = 11520.0;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::vector<uint8_t> hostFrame(uint8_t address, uint8_t command, const std::vector<uint8_t>& data)
{
    // Appended into reserved room: GCC 12 misreads an insert into a vector
    // made from an initializer list as writing past its end.
    std::vector<uint8_t> f;
    f.reserve(4 + data.size() + 1);
    f.assign({0x55, address, static_cast<uint8_t>(data.size()), command});
    f.insert(f.end(), data.begin(), data.end());
    unsigned sum = 0;
    for (uint8_t b : f) sum += b;
    f.push_back(static_cast<uint8_t>(0x100 - (sum & 0xFF)));
    return f;
}

// Reads until `count` bytes came; returns the seconds at which the first
// and the last byte were seen.
void drain(FT_HANDLE handle, size_t count, Clock::time_point start, double& first, double& last)
{
    std::vector<uint8_t> buffer(4096);
    size_t total = 0;
    first = last = -1;
    while (total < count && secondsSince(start) < 10) {
        uint32_t n = 0;
        FT_Read(handle, buffer.data(), static_cast<uint32_t>(buffer.size()), &n);
        if (n > 0) {
            if (first < 0) first = secondsSince(start);
            last = secondsSince(start);
            total += n;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void report(const char* what, double bytes, double seconds)
{
    double rate = bytes / seconds;
    double off = (rate - kLineRate) / kLineRate * 100.0;
    std::printf("%-34s %8.0f bytes in %7.4f s = %8.1f bytes/s (%+.2f%%, %s 5%%)\n", what, bytes, seconds, rate, off,
                std::fabs(off) <= 5.0 ? "within" : "OUTSIDE");
}

}  // namespace

int main()
{
    rackSimReset();
    int rack = rackSimAddDevice("Smart Card Rack", "BENCH001");
    rackSimAddSlots(rack, 1, 1);
    const uint8_t atr[] = {0x3B, 0x00};
    rackSimInsertCard(rack, 1, atr, 2);
    rackSimSetFixedAnswer(rack, 1, nullptr, 0);
    FT_HANDLE handle = nullptr;
    if (FT_OpenEx(const_cast<char*>("BENCH001"), FT_OPEN_BY_SERIAL_NUMBER, &handle) != FT_OK) return 1;
    rackSimSetWireRealism(rack, 1);

    // Rack to host: one second of line time.
    std::vector<uint8_t> block(11520);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i);
    Clock::time_point start = Clock::now();
    rackSimInjectBytes(rack, block.data(), static_cast<int>(block.size()));
    double first, last;
    drain(handle, block.size(), start, first, last);
    report("rack to host, start to last byte", static_cast<double>(block.size()), last);
    report("rack to host, first to last byte", static_cast<double>(block.size() - 62), last - first);

    // Host to rack: 45 frames of 260 bytes written at once; the rack takes
    // in each when its last byte has arrived.
    const int frames = 45;
    std::vector<uint8_t> burst;
    for (int i = 0; i < frames; ++i) {
        std::vector<uint8_t> f = hostFrame(1, 0x40, std::vector<uint8_t>(255, static_cast<uint8_t>(i)));
        burst.insert(burst.end(), f.begin(), f.end());
    }
    rackSimClearWireLog(rack);
    start = Clock::now();
    uint32_t written = 0;
    FT_Write(handle, burst.data(), static_cast<uint32_t>(burst.size()), &written);
    while (rackSimCounter(rack, RACKSIM_FRAMES_FROM_HOST) < frames && secondsSince(start) < 10)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    report("host to rack, frames taken in", static_cast<double>(burst.size()), secondsSince(start));
    drain(handle, static_cast<size_t>(frames) * 10, start, first, last);

    // One status request and its two frames back.
    std::vector<uint8_t> request = hostFrame(1, 0x00, {});
    double worst = 0, sum = 0;
    const int rounds = 20;
    for (int i = 0; i < rounds; ++i) {
        start = Clock::now();
        FT_Write(handle, request.data(), static_cast<uint32_t>(request.size()), &written);
        drain(handle, 5 + 7, start, first, last);
        sum += last;
        if (last > worst) worst = last;
    }
    std::printf("status exchange round trip: mean %.2f ms, worst %.2f ms (line 1.5 ms + latency timer 16 ms)\n",
                sum / rounds * 1000, worst * 1000);

    FT_Close(handle);
    rackSimReset();
    return 0;
}
