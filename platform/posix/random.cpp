#include "platform/random.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

namespace platform {

bool fillRandom(void* destination, size_t size)
{
    auto* bytes = static_cast<unsigned char*>(destination);
    size_t filled = 0;
    while (filled < size) {
        const ssize_t got = getrandom(bytes + filled, size - filled, 0);
        if (got > 0) {
            filled += static_cast<size_t>(got);
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        break;
    }
    if (filled == size) return true;
    // A kernel without getrandom: the device it reads from.
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    while (filled < size) {
        const ssize_t got = ::read(fd, bytes + filled, size - filled);
        if (got > 0) {
            filled += static_cast<size_t>(got);
        } else if (!(got < 0 && errno == EINTR)) {
            break;
        }
    }
    ::close(fd);
    return filled == size;
}

}  // namespace platform
