#include "platform/log_file.h"
#include "platform/log_path_override.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

// O_APPEND puts every write at the end as one step, so another process
// that appends to the same file never lands inside one of our entries.
// The mode leaves the file readable by every user, like the folder it is in.
bool LogFile::open(const std::string& path, bool empty)
{
    close();
    int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (empty ? O_TRUNC : 0);
    int fd = ::open(path.c_str(), flags, 0644);
    if (fd < 0) return false;
    struct stat status {};
    sizeAtOpen_ = (fstat(fd, &status) == 0) ? static_cast<uint64_t>(status.st_size) : 0;
    handle_ = fd;
    return true;
}

void LogFile::close()
{
    if (handle_ == kClosed) return;
    ::close(static_cast<int>(handle_));
    handle_ = kClosed;
}

bool LogFile::append(const char* data, size_t size)
{
    if (handle_ == kClosed) return false;
    ssize_t written = ::write(static_cast<int>(handle_), data, size);
    return written == static_cast<ssize_t>(size);
}

bool replaceFile(const std::string& from, const std::string& to)
{
    pauseBeforeLogMove();
    return std::rename(from.c_str(), to.c_str()) == 0;
}

std::string textForLogFile(const char* text) { return text ? text : ""; }

}  // namespace platform
