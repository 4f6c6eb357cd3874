// The readings a benchmark takes: wall-clock time, processor time, the
// spread of samples, and the library's trace log, which a measurement starts
// afresh and counts the entries of.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start);

// The process's processor time less the emulator's own thread, which does
// on this machine what the device driver does on a real one (it signals the
// fast link's receive event): the figure is the library's and the host's.
double processCpuMs();

double threadCpuMs(pthread_t thread);

double ownThreadCpuMs();

double percentile(std::vector<double> values, double p);

double mean(const std::vector<double>& values);

// The file the library logs to for the whole run, set once before the
// first measurement; it goes when the run ends.
void useBenchLog(const std::string& path);
const std::string& benchLog();
void removeBenchLog();

// Starts the log afresh: the next entry empties the file.
void restartLog();

// Entries in the log, each of which starts with a stamp "... [phase]\t",
// and the size of the file.
size_t logEntries(size_t* bytes = nullptr);

}  // namespace bench
