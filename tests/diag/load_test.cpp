// Loading libpcsclite.so.1 beside another thread's dlopen calls, as in a
// host whose worker threads load plug-ins. The library's constructor runs
// under the dynamic loader's lock, which every dlopen and dlclose takes:
// it must not hold that lock up. The one measure is a generous bound, far
// below the second the start-up used to pause there. The load runs in a
// child process, so that the library's racks and threads stay out of the
// test's own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <dlfcn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Slow, but not held up by a pause of a second.
constexpr double kHeldUpMs = 700;

struct Measured {
    double loadMs = -1;        // dlopen of the library
    double longestOtherMs = -1;  // the longest dlopen of the other thread meanwhile
    int otherLoads = 0;
};

TEST(LoadingTheLibrary, AnotherThreadsDlopenIsNotHeldUpByTheStartUp)
{
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(report[0]);
        setenv("TESSEL_TRACE", "off", 1);
        Measured measured;
        std::atomic<bool> started{false}, done{false};
        std::thread other([&] {
            started.store(true);
            while (!done.load()) {
                const Clock::time_point begin = Clock::now();
                void* module = dlopen("libm.so.6", RTLD_NOW | RTLD_LOCAL);
                const double took = msSince(begin);
                if (module) dlclose(module);
                if (took > measured.longestOtherMs) measured.longestOtherMs = took;
                ++measured.otherLoads;
            }
        });
        while (!started.load()) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const Clock::time_point begin = Clock::now();
        void* library = dlopen(PCSCLITE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        measured.loadMs = library ? msSince(begin) : -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        done.store(true);
        other.join();
        if (write(report[1], &measured, sizeof measured) != sizeof measured) _exit(1);
        _exit(0);  // the library's threads still run: no destructors
    }
    close(report[1]);
    Measured measured;
    const ssize_t got = read(report[0], &measured, sizeof measured);
    close(report[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(got, static_cast<ssize_t>(sizeof measured));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    ASSERT_GE(measured.loadMs, 0) << "the library did not load";
    EXPECT_GT(measured.otherLoads, 0);
    EXPECT_LT(measured.loadMs, kHeldUpMs) << "dlopen of the library";
    EXPECT_LT(measured.longestOtherMs, kHeldUpMs) << "the longest dlopen of the other thread";
}

}  // namespace
