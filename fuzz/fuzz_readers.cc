// Any bytes and faults on a line. The bytes come from memory: the system calls that the readers
// make on LINE are this program's own.
//
// The first byte of an input chooses reader, reply mode and buffer size, the second what follows
// the last byte. FAULT and a letter stand for a fault at that place, FAULT and any other byte for
// that byte.

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "fuzz.h"
#include "proto.h"

namespace {

constexpr int LINE = 1000;
constexpr char FAULT = '\xFF';
constexpr size_t CLOSED_READS = 3;  // of a closed connection, before it falls silent
constexpr std::string_view POLL_ANSWER = "2\x05\x1F\x06";

enum : char {
    WAIT_INTERRUPTED = 'a',
    WAIT_FAILED = 'b',
    WAIT_EXCEPTIONAL = 'c',
    WAIT_SILENT = 'd',
    READ_INTERRUPTED = 'e',
    READ_FAILED = 'f',
    READ_CLOSED = 'g',
    SEND_FULL = 'h',  // the next reply finds no room
};
constexpr std::string_view WAIT_FAULTS = "abcdh";
constexpr std::string_view READ_FAULTS = "efg";

struct line_t {
    std::string_view rest;
    bool ends_closed;  // or in silence
    size_t closed_reads;
    bool is_full;
    bool dropped;         // a byte of the replies
    std::string replies;  // of one call

    bool is_over() const { return rest.empty() && (!ends_closed || closed_reads >= CLOSED_READS); }

    // Takes the fault that comes next, if it is one of those.
    char take_fault(std::string_view faults) {
        if (rest.size() < 2 || rest[0] != FAULT || faults.find(rest[1]) == std::string_view::npos) {
            return '\0';
        }
        const char fault = rest[1];
        rest.remove_prefix(2);
        return fault;
    }
};

line_t line;

int fail(int reason) {
    errno = reason;
    return -1;
}

int report_silence(fd_set *readable, fd_set *exceptional) {
    FD_CLR(LINE, readable);
    FD_CLR(LINE, exceptional);
    return 0;
}

// What one call may have sent, when every byte found room.
bool is_complete_answer(std::string_view replies, int espa_poll) {
    if (replies == "\x04" || replies == "\x06") {
        return true;
    }
    return espa_poll != 0 && (replies == "\x06\x06" || replies == POLL_ANSWER);
}

void check_replies(bool ascii, int espa_poll, int result) {
    if (ascii || result < 1) {
        require(line.replies.empty());
        return;
    }
    require(line.replies.find_first_not_of("\x04\x06\x32\x05\x1F") == std::string::npos);
    // An overlong packet and one ended by EOT are not acknowledged.
    require(line.dropped || line.replies.empty() || is_complete_answer(line.replies, espa_poll));
}

}  // namespace

extern "C" int select(int count, fd_set *readable, fd_set * /*writable*/, fd_set *exceptional,
                      timeval * /*timeout*/) {
    require(count == LINE + 1 && FD_ISSET(LINE, readable) && FD_ISSET(LINE, exceptional));
    switch (line.take_fault(WAIT_FAULTS)) {
        case WAIT_INTERRUPTED:
            return fail(EINTR);
        case WAIT_FAILED:
            return fail(ENOMEM);
        case WAIT_EXCEPTIONAL:
            return 1;
        case WAIT_SILENT:
            return report_silence(readable, exceptional);
        case SEND_FULL:
            line.is_full = true;
            break;
        default:
            break;
    }
    FD_CLR(LINE, exceptional);
    return line.is_over() ? report_silence(readable, exceptional) : 1;
}

extern "C" ssize_t read(int file, void *bytes, size_t size) {
    if (file != LINE) {
        return syscall(SYS_read, file, bytes, size);
    }
    require(size == 1);
    switch (line.take_fault(READ_FAULTS)) {
        case READ_INTERRUPTED:
            return fail(EINTR);
        case READ_FAILED:
            return fail(ECONNRESET);
        case READ_CLOSED:
            return 0;
        default:
            break;
    }
    if (line.rest.empty()) {
        line.closed_reads++;
        return 0;
    }
    if (line.rest.size() > 1 && line.rest[0] == FAULT) {
        line.rest.remove_prefix(1);
    }
    *static_cast<char *>(bytes) = line.rest[0];
    line.rest.remove_prefix(1);
    return 1;
}

extern "C" ssize_t send(int file, const void *bytes, size_t size, int flags) {
    require(file == LINE && size == 1 && (flags & MSG_NOSIGNAL) != 0 &&
            (flags & MSG_DONTWAIT) != 0);
    if (line.is_full) {
        line.is_full = false;
        line.dropped = true;
        return fail(EAGAIN);
    }
    line.replies += *static_cast<const char *>(bytes);
    return 1;
}

extern "C" int nanosleep(const timespec * /*wanted*/, timespec * /*left*/) {
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    quiet_log();
    if (size < 2) {
        return 0;
    }
    const bool ascii = (data[0] & 1) != 0;
    const int espa_poll = (data[0] & 2) != 0;
    const int maxlen = (data[0] >> 3) * ((data[0] & 4) != 0 ? 8 : 1);
    line = {as_text(data + 2, size - 2), (data[1] & 1) != 0, 0, false, false, {}};

    std::vector<char> buffer(static_cast<size_t>(maxlen + (ascii ? 0 : 2)));
    int polls = 0;
    int result = 0;
    while (result != -1 && maxlen > 0 && !line.is_over()) {
        line.replies.clear();
        line.dropped = false;
        result = ascii ? ascii_read_packet(LINE, buffer.data(), maxlen, nullptr)
                       : espa_read_packet(LINE, buffer.data(), maxlen, &polls, espa_poll);
        require(result >= -2 && result <= std::max(1, maxlen - 1) && polls >= 0);
        check_replies(ascii, espa_poll, result);
    }
    return 0;
}
