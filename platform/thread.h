// Threads of the library: the rack's two workers, and the detached
// discovery thread of start-up.
#pragma once

#include <functional>
#include <thread>

namespace platform {

// A joinable worker thread.
class WorkerThread {
public:
    WorkerThread() = default;
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;
    ~WorkerThread() { join(); }

    void start(std::function<void()> body) { thread_ = std::thread(std::move(body)); }
    bool running() const { return thread_.joinable(); }
    void join()
    {
        if (thread_.joinable()) thread_.join();
    }

private:
    std::thread thread_;
};

// Starts a thread that nobody waits for. On Windows this is CreateThread,
// which may be called under the loader lock: the thread only runs once the
// lock is free. Returns false if no thread could be made.
bool startDetachedThread(void (*body)());

}  // namespace platform
