#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

unique_fd_t open_regular(const char *path, int flags, mode_t mode) noexcept {
    unique_fd_t file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    if (!file) {
        errno = errno == ENXIO ? NOT_REGULAR : errno;  // a FIFO that nobody reads
        return file;
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        file.reset();
        errno = S_ISDIR(status.st_mode) ? EISDIR : NOT_REGULAR;
    }
    return file;
}

unique_file_t open_text(const char *path, int flags) noexcept {
    unique_fd_t file = open_regular(path, O_RDONLY | flags);
    return unique_file_t(file ? fdopen(file.release(), "r") : nullptr);
}
