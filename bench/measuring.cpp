#include "bench/measuring.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>

#include "diag/trace_log.h"
#include "platform/test_seam.h"
#include "sim/rack_sim.h"

namespace bench {

double msSince(Clock::time_point start) { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); }

double processCpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0 - rackSimOwnCpuUs() / 1000.0;
}

double threadCpuMs(pthread_t thread)
{
    clockid_t id;
    if (pthread_getcpuclockid(thread, &id) != 0) return 0;
    timespec t{};
    clock_gettime(id, &t);
    return t.tv_sec * 1000.0 + t.tv_nsec / 1e6;
}

double ownThreadCpuMs()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1000.0 + t.tv_nsec / 1e6;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
    return values[std::min(values.size() - 1, rank > 0 ? rank - 1 : 0)];
}

double mean(const std::vector<double>& values)
{
    double sum = 0;
    for (double v : values) sum += v;
    return values.empty() ? 0 : sum / static_cast<double>(values.size());
}

namespace {
std::string g_benchLog;
}  // namespace

void useBenchLog(const std::string& path)
{
    g_benchLog = path;
    platform::testing::setLogFilePath(g_benchLog);
}

const std::string& benchLog() { return g_benchLog; }

void removeBenchLog() { std::remove(g_benchLog.c_str()); }

void restartLog()
{
    std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
    g_logPath.clear();
    std::remove(g_benchLog.c_str());
}

size_t logEntries(size_t* bytes)
{
    std::ifstream file(g_benchLog, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    size_t count = 0;
    for (size_t at = text.find("]\t"); at != std::string::npos; at = text.find("]\t", at + 2)) ++count;
    if (bytes) *bytes = text.size();
    return count;
}

}  // namespace bench
