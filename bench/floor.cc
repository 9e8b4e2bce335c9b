// The least that any program on a paging line must do: one select and one read for each byte, an ACK and
// a call file for each packet, and so many log lines of the same length, opened, written and closed one
// by one. Nothing is looked at but SOH and ETX.
//
//   bench_floor SPOOL LOG LINES_PER_BYTE LINES_PER_PACKET PORT...

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "espa.h"

namespace {

std::string spool;
std::string log_file;
int lines_per_byte;
int lines_per_packet;

// Lengths as the daemon's own lines have them on average.
constexpr std::string_view BYTE_LINE =
    "11/15/26 12:14:45:  DEBUG[4012]: proto:185 in espa_read_packet: 2 Read 31\n\n";
constexpr std::string_view PACKET_LINE =
    "11/15/26 12:14:45:  DEBUG[4012]: vesperd:185 in service_proc: ESPA packet BCC is OK\n\n";
constexpr std::string_view CALL =
    "Channel: Local/4711@pagers\r\nContext: nurse-call\r\nExtension: 4711\r\nCallerID: \"4711\" "
    "<4711>\r\nPriority: 1\r\nMaxRetries: 0\r\n";

void put(const char *path, int flags, std::string_view text) {
    const int fd = open(path, flags | O_CREAT | O_CLOEXEC, 0666);
    if (write(fd, text.data(), text.size()) < 0) {
        exit(EXIT_FAILURE);
    }
    close(fd);
}

void log_lines(int count, std::string_view text) {
    for (int i = 0; i < count; i++) {
        put(log_file.c_str(), O_RDWR | O_APPEND, text);
    }
}

bool read_one(int sock, char *byte) {
    fd_set readable;
    fd_set exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&exceptional);
    FD_SET(sock, &readable);
    FD_SET(sock, &exceptional);
    timeval wait{15, 0};
    select(sock + 1, &readable, nullptr, &exceptional, &wait);
    const bool got = read(sock, byte, 1) == 1;
    log_lines(lines_per_byte, BYTE_LINE);
    return got;
}

void serve(int port, int number) {
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(static_cast<uint16_t>(port));
    where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(sock, reinterpret_cast<sockaddr *>(&where), sizeof where) != 0) {
        exit(EXIT_FAILURE);
    }
    const std::string call = spool + "/call_" + std::to_string(number) + "_1795262750";
    char byte = 0;
    char packet[PACKET_BUFFER_SIZE];
    size_t stored = 0;
    while (read_one(sock, &byte)) {
        packet[stored++ % sizeof packet] = byte;
        if (byte == ETX && read_one(sock, &byte)) {
            send(sock, "\x06", 1, MSG_NOSIGNAL);
            put(call.c_str(), O_WRONLY | O_TRUNC, CALL);
            log_lines(lines_per_packet, PACKET_LINE);
            stored = 0;
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 6) {
        return EXIT_FAILURE;
    }
    spool = argv[1];
    log_file = argv[2];
    lines_per_byte = atoi(argv[3]);
    lines_per_packet = atoi(argv[4]);
    std::vector<std::thread> lines;
    for (int i = 5; i < argc; i++) {
        lines.emplace_back(serve, atoi(argv[i]), i);
    }
    for (std::thread &line : lines) {
        line.join();
    }
}
