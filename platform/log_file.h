// The trace log's file: kept open between entries and appended to with one
// write call per entry, so that an entry reaches the file whole and the
// writer's lock is held only for that call.
//
// The log lies in a folder every local user can write to and holds card
// traffic, so it is opened with care: never through a link, never a FIFO
// or device, only a regular file of the caller's own with a single name,
// readable by its owner alone. An existing file is checked before it is
// emptied, so a file planted at the log's path is never overwritten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

enum class LogOpenOutcome {
    opened,
    failed,   // could not be opened (no folder, no room): worth another try later
    refused,  // something is at the path that the log must not be written to
    inUse,    // another running process writes this log
};

struct LogOpenResult {
    LogOpenOutcome outcome = LogOpenOutcome::failed;
    std::string reason;  // for refused and inUse: why, in plain words
};

// What the checks look at in an opened file.
struct LogFileFacts {
    bool regular = false;        // a regular file (not a FIFO, device, folder or link)
    bool ownedByCaller = false;  // its owner is the user this process runs as
    uint64_t links = 0;          // the names it has
};

// The one rule both backends apply: nullptr when the log may be written
// to the file, else the reason it may not.
const char* logFileDoubt(const LogFileFacts& facts);

// The path of this process's own log beside `path`: the process id goes
// before the extension, "QuorvaneDLL.log" becoming "QuorvaneDLL-4711.log".
std::string logPathForThisProcess(const std::string& path);

class LogFile {
public:
    LogFile() = default;
    ~LogFile() { close(); }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Opens `path` for appending, creating it owner-only when it is
    // missing, and emptying it when `empty` is set and every check passed.
    // While it is open this process holds an advisory lock on it, which is
    // how another process finds it in use. Other openers may read, write,
    // rename and delete it meanwhile.
    LogOpenResult open(const std::string& path, bool empty);
    bool isOpen() const { return handle_ != kClosed; }
    void close();

    // Appends `size` bytes at the end of the file in one call. False when
    // the write failed; the file stays open.
    bool append(const char* data, size_t size);

    // The file's size when it was opened, for a file opened without emptying.
    uint64_t sizeAtOpen() const { return sizeAtOpen_; }

private:
    static constexpr intptr_t kClosed = -1;
    intptr_t handle_ = kClosed;
    uint64_t sizeAtOpen_ = 0;
};

// Moves the file `from` to `to`, replacing any file there. False when the
// move failed and `from` is still in place.
bool replaceFile(const std::string& from, const std::string& to);

// The text as a text-mode file of this platform stores it: on Windows every
// "\n" becomes CR LF, elsewhere the text is unchanged.
std::string textForLogFile(const char* text);

}  // namespace platform
