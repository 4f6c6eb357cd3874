// The trace log's cost: one entry written alone, short and long, under each
// of the log's settings, and the log's growth in redact mode under load.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "bench/measuring.h"
#include "bench/scenarios.h"
#include "diag/trace_log.h"

namespace bench {

using report_text::fmt;

namespace {

const char* const kShortEntry = "Tessel BENCH064 R12 Transmit - 00 b0 00 00 02 \n";

TraceCost measureTrace(const std::string& what, const std::string& text, int count)
{
    restartLog();
    for (int i = 0; i < 200; ++i) logWrite(text);
    std::vector<double> us;
    us.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        Clock::time_point start = Clock::now();
        logWrite(text);
        us.push_back(msSince(start) * 1000.0);
    }
    restartLog();
    return {what, text.size(), percentile(us, 0.5), percentile(us, 0.99), mean(us)};
}

// Runs `body` with one trace setting in the environment; the log reads it
// when it starts afresh, which every measurement does first.
template <typename Body>
auto withTraceSetting(const char* name, const char* value, Body body)
{
    setenv(name, value, 1);
    auto result = body();
    unsetenv(name);
    restartLog();
    std::remove((benchLog() + ".1").c_str());
    return result;
}

// The short entry again without a limit, with a limit small enough to move
// the log aside every few hundred entries, and with the log off; and the
// entries that moved it, the slowest as many as there were rotations.
std::vector<TraceCost> measureTraceSettings(const std::string& text, int count)
{
    std::vector<TraceCost> rows;
    rows.push_back(withTraceSetting("TESSEL_TRACE_LIMIT", "0", [&] {
        return measureTrace("short entry, no limit (TESSEL_TRACE_LIMIT=0)", text, count);
    }));
    const uint64_t limit = 16 << 10;
    rows.push_back(withTraceSetting("TESSEL_TRACE_LIMIT", "16K", [&] {
        return measureTrace("short entry, log rotating at 16 KiB (one entry in ~200 rotates)", text, count);
    }));
    rows.push_back(withTraceSetting("TESSEL_TRACE_LIMIT", "16K", [&] {
        restartLog();
        std::vector<double> us;
        for (int i = 0; i < count; ++i) {
            Clock::time_point start = Clock::now();
            logWrite(text);
            us.push_back(msSince(start) * 1000.0);
        }
        size_t lineBytes = text.size() + 30;
        size_t rotations = std::max<size_t>(1, static_cast<size_t>(count) * lineBytes / limit);
        std::sort(us.begin(), us.end());
        std::vector<double> slowest(us.end() - static_cast<std::ptrdiff_t>(rotations), us.end());
        return TraceCost{"the entry that rotates (slowest " + std::to_string(rotations) + " of " +
                             std::to_string(count) + ")",
                         text.size(), percentile(slowest, 0.5), percentile(slowest, 0.99), mean(slowest)};
    }));
    rows.push_back(withTraceSetting("TESSEL_TRACE", "off", [&] {
        return measureTrace("short entry, TESSEL_TRACE=off", text, count);
    }));
    return rows;
}

}  // namespace

std::vector<TraceCost> measureTraceCosts(bool quick)
{
    std::vector<TraceCost> traces;
    traces.push_back(measureTrace("short entry (a Transmit line)", kShortEntry, quick ? 2000 : 5000));
    {
        std::string received = "Received 267 bytes from rack BENCH064: ";
        for (int i = 0; i < 267; ++i) received += fmt("%02x ", i & 0xFF);
        received += "\n";
        traces.push_back(measureTrace("long entry (a 267-byte Received line)", received, quick ? 1000 : 3000));
    }
    for (const TraceCost& row : measureTraceSettings(kShortEntry, quick ? 2000 : 5000)) traces.push_back(row);
    return traces;
}

Throughput measureRedactedThroughput(const std::vector<SCARDHANDLE>& handles, const bus_model::Shape& shape,
                                     const std::vector<BYTE>& command, int threads, double windowS, double warmS)
{
    return withTraceSetting("TESSEL_TRACE", "redact", [&] {
        return measureThroughput(handles, shape, command, threads, windowS, warmS);
    });
}

}  // namespace bench
