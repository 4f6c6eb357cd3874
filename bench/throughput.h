// What a throughput window measured, and the one rule that turns the
// window's counters into per-exchange figures. Header-only: the native
// benchmark and the Windows load bench (which cannot link the POSIX
// measuring code) share it.
#pragma once

#include "bench/bus_model.h"

namespace bench {

struct Throughput {
    bus_model::Shape shape;
    int threads = 0;
    double rate = 0;
    long exchanges = 0;
    long failures = 0;
    double processCpuMs = 0;  // per exchange
    double callerCpuMs = 0;   // per exchange, host threads only
    double cores = 0;         // process CPU per wall second
    double entries = 0;       // log entries per exchange (native bench only)
    double logKBps = 0;       // growth of the log file (native bench only)
};

// `exchanges` completed in `elapsedS`, costing the process `processMs` and
// the host threads `callerMs` of processor time.
inline void settleThroughput(Throughput& t, long exchanges, double elapsedS, double processMs, double callerMs)
{
    t.exchanges = exchanges;
    t.rate = static_cast<double>(exchanges) / elapsedS;
    if (exchanges > 0) {
        t.processCpuMs = processMs / static_cast<double>(exchanges);
        t.callerCpuMs = callerMs / static_cast<double>(exchanges);
    }
    t.cores = processMs / (elapsedS * 1000.0);
}

}  // namespace bench
