// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

class unique_fd_t {
  public:
    explicit unique_fd_t(int fd = -1) noexcept : fd_(fd) {}
    unique_fd_t(unique_fd_t &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd_t &operator=(unique_fd_t &&other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~unique_fd_t() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_;
};
