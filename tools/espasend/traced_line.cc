#include "traced_line.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// A reset line must not end the program, and a serial device takes no send().
ssize_t write_some(int fd, std::string_view bytes) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? write(fd, bytes.data(), bytes.size()) : sent;
}

}  // namespace

bool traced_line_t::send_bytes(std::string_view bytes) {
    show("-> ", bytes);
    while (!bytes.empty()) {
        const ssize_t sent = write_some(fd_, bytes);
        if (sent < 0 && errno != EINTR) {
            return fail(std::string("cannot send: ") + strerror(errno));
        }
        bytes.remove_prefix(static_cast<size_t>(sent > 0 ? sent : 0));
    }
    return true;
}

bool traced_line_t::expect(std::string_view bytes) {
    std::string answer;
    while (answer.size() < bytes.size()) {
        const int byte = read_byte();
        if (byte < 0) {
            return fail("no " + describe_bytes(bytes) + ": " + error_);
        }
        answer += static_cast<char>(byte);
    }
    show("<- ", answer);
    return answer == bytes ||
           fail("expected " + describe_bytes(bytes) + ", got " + describe_bytes(answer));
}

bool traced_line_t::is_closed() const {
    char byte = 0;
    return recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// Returns the byte, or -1 with error() set.
int traced_line_t::read_byte(int wait_seconds) {
    pollfd waiting{fd_, POLLIN, 0};
    const int ready = poll(&waiting, 1, wait_seconds * 1000);
    if (ready == 0) {
        fail("no answer within " + std::to_string(wait_seconds) + " seconds");
        return -1;
    }
    unsigned char byte = 0;
    const ssize_t got = ready < 0 ? -1 : read(fd_, &byte, 1);
    if (got == 1) {
        return byte;
    }
    fail(got == 0 ? "the line was closed" : strerror(errno));
    return -1;
}

std::string traced_line_t::read_pending(int milliseconds) {
    char bytes[256];
    pollfd waiting{fd_, POLLIN, 0};
    const ssize_t got = poll(&waiting, 1, milliseconds) > 0 ? read(fd_, bytes, sizeof bytes) : 0;
    return {bytes, static_cast<size_t>(got > 0 ? got : 0)};
}

void traced_line_t::show(const char *what, std::string_view bytes) const {
    if (trace_ != nullptr) {
        fprintf(trace_, "%s%s\n", what, describe_bytes(bytes).c_str());
    }
    if (recorder_ != nullptr) {
        recorder_->note(what[0] == '-', bytes);
    }
}

bool traced_line_t::fail(const std::string &why) {
    error_ = why;
    return false;
}
