// The trace log's file: kept open between entries and appended to with one
// write call per entry, so that an entry reaches the file whole and the
// writer's lock is held only for that call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

class LogFile {
public:
    LogFile() = default;
    ~LogFile() { close(); }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Opens `path` for appending, creating it when it is missing and
    // emptying it when `empty` is set. Other openers may read, write,
    // rename and delete it meanwhile. False when it cannot be opened.
    bool open(const std::string& path, bool empty);
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
