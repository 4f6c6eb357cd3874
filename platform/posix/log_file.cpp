#include "platform/log_file.h"
#include "platform/log_path_override.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

// O_APPEND puts every write at the end as one step, so another process
// that appends to the same file never lands inside one of our entries.
// O_NOFOLLOW refuses a symbolic link at the path; O_NONBLOCK makes the
// open of a FIFO without a reader fail at once (ENXIO) instead of hanging,
// and one with a reader is refused by the check. The file is not emptied
// by the open (no O_TRUNC): only after the checks and the lock.
//
// "In use by another live process" is an exclusive flock() held for as
// long as the file is open. The system drops it when the holder closes the
// file or ends in any way, so a log left behind by a crashed process is
// never taken for one in use, and nothing has to be cleaned up.
LogOpenResult LogFile::open(const std::string& path, bool empty)
{
    close();
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) {
        switch (errno) {
        case ELOOP: return {LogOpenOutcome::refused, "it is a symbolic link"};
        case ENXIO:
        case EISDIR: return {LogOpenOutcome::refused, "it is not a regular file"};
        case EACCES:
        case EPERM: return {LogOpenOutcome::refused, "it cannot be written by this user"};
        default: return {LogOpenOutcome::failed, ""};
        }
    }
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        ::close(fd);
        return {LogOpenOutcome::failed, ""};
    }
    LogFileFacts facts;
    facts.regular = S_ISREG(status.st_mode);
    facts.ownedByCaller = status.st_uid == geteuid();
    facts.links = static_cast<uint64_t>(status.st_nlink);
    if (const char* doubt = logFileDoubt(facts)) {
        ::close(fd);
        return {LogOpenOutcome::refused, doubt};
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return {LogOpenOutcome::inUse, "another running process writes it"};
    }
    // A log of ours that an earlier version left readable to all.
    if ((status.st_mode & 07777) != 0600) fchmod(fd, 0600);
    sizeAtOpen_ = static_cast<uint64_t>(status.st_size);
    if (empty && status.st_size != 0) {
        if (ftruncate(fd, 0) != 0) {
            ::close(fd);
            return {LogOpenOutcome::failed, ""};
        }
        sizeAtOpen_ = 0;
    }
    handle_ = fd;
    return {LogOpenOutcome::opened, ""};
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

// rename() replaces a link at `to` itself, never the file it points to.
bool replaceFile(const std::string& from, const std::string& to)
{
    pauseBeforeLogMove();
    return std::rename(from.c_str(), to.c_str()) == 0;
}

std::string textForLogFile(const char* text) { return text ? text : ""; }

}  // namespace platform
