// The targets that both forms of the load benchmark, native and under Wine,
// hold the waiting calls and the thread scaling to.
#pragma once

namespace load_targets {

constexpr double kWaitCoreTarget = 0.01;         // a waiting call: share of one core
constexpr double kScalingTarget = 0.95;          // 16 and 64 threads: share of the device figure
constexpr double kCpuPerExchangeTargetMs = 1.0;  // this build, natively
constexpr double kCpuPerExchangeWineMs = 2.0;    // the DLL under Wine

// Whether a run of `threads` threads counts for the scaling target.
inline bool scalingCounts(int threads) { return threads >= 16; }

}  // namespace load_targets
