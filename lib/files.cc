#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

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

int read_whole(const char *path, int flags, size_t limit, std::string *text) noexcept {
    const unique_file_t file = open_text(path, flags);
    return file ? read_to_end(file.get(), limit, text) : -1;
}

int read_to_end(FILE *file, size_t limit, std::string *text) noexcept {
    constexpr size_t PIECE_SIZE = 65536;
    text->clear();
    // The size is not asked for: somebody may be writing to the file.
    for (size_t count = 1; count > 0 && text->size() <= limit;) {
        const size_t before = text->size();
        text->resize(before + PIECE_SIZE);
        count = fread(text->data() + before, 1, PIECE_SIZE, file);
        text->resize(before + count);
    }
    if (ferror(file) == 0 && text->size() > limit) {
        errno = EFBIG;
    }
    return ferror(file) != 0 || text->size() > limit ? -1 : 0;
}

std::string file_fault(int error, size_t limit) {
    switch (error) {
        case NOT_REGULAR:
            return "it is no regular file";
        case EFBIG:
            return "it is larger than " + std::to_string(limit >> 20) + " MB";
        case ELOOP:
            return "it is a link";
        default:
            return strerror(error);
    }
}
