// Any bytes on a line: the first byte chooses reader, buffer size and reply mode.

#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "proto.h"

namespace {

// Ends whatever the input left open: a block check character may swallow the first.
constexpr std::string_view ENDING = "\x04\x04\x04";
constexpr size_t MAX_SIZE = 8192;

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    quiet_log();
    int ends[2];
    if (size < 1 || size > MAX_SIZE || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return 0;
    }
    const bool ascii = (data[0] & 1) != 0;
    const int espa_poll = (data[0] & 2) != 0;
    const int maxlen = (data[0] & 4) != 0 ? PACKET_SIZE : data[0] >> 3;
    const std::string sent = std::string(as_text(data + 1, size - 1)) + std::string(ENDING);
    require(write(ends[1], sent.data(), sent.size()) == static_cast<ssize_t>(sent.size()));
    shutdown(ends[1], SHUT_WR);

    std::vector<char> buffer(static_cast<size_t>(maxlen + (ascii ? 0 : 2)));
    int polls = 0;
    int result = 0;
    for (size_t calls = 0; calls <= sent.size() && maxlen > 0 && result != -1; calls++) {
        result = ascii ? ascii_read_packet(ends[0], buffer.data(), maxlen, nullptr)
                       : espa_read_packet(ends[0], buffer.data(), maxlen, &polls, espa_poll);
        require(result <= std::max(1, maxlen - 1) && polls >= 0);
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
