#include "wake.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> fd = -1;
static_assert(std::atomic<int>::is_always_lock_free, "read in signal context");

}  // namespace

bool wake_init() noexcept {
    if (fd < 0) {
        fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    return fd >= 0;
}

void wake() noexcept {
    const int error = errno;
    if (fd >= 0) {
        eventfd_write(fd, 1);
    }
    errno = error;
}

void wake_wait(long microseconds) noexcept {
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(microseconds / 1000)) > 0) {
        eventfd_t count = 0;
        eventfd_read(fd, &count);
    }
}
