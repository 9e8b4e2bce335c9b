#include "proto.h"

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "clock.h"
#include "logger.h"
#include "stats.h"

namespace {

constexpr int READ_WAIT_SECONDS = 15;
constexpr long CLOSED_PEER_PAUSE_US = 1'000'000;
constexpr char POLL_ADDRESS = '2';
constexpr char SELECT_ADDRESS = '1';
constexpr std::string_view POLL_REPLY = "2\x05\x1F";  // the address, ENQ and US

constexpr int MAX_KNOCKS = 2;
thread_local const knock_t *heard = nullptr;

// Returns how many there are.
nfds_t list_knocks(pollfd *waiting) {
    nfds_t count = 0;
    for (const knock_t *knock = heard; knock != nullptr; knock = knock->also) {
        waiting[count++] = {knock->fd, POLLIN, 0};
    }
    return count;
}

// Whether one of those who knock has the wait given up; `knocks` are polled in the order of `heard`.
bool is_given_up(const pollfd *knocks) {
    bool is_given_up = false;
    for (const knock_t *knock = heard; knock != nullptr; knock = knock->also, knocks++) {
        if (knocks->revents != 0 && knock->heed(knock->context)) {
            is_given_up = true;
        }
    }
    return is_given_up;
}

// Sleeps, unless somebody who knocks meanwhile has the wait given up; returns whether he has.
bool pause_until_given_up(long microseconds) {
    if (heard == nullptr) {
        pause_us(microseconds);
        return false;
    }
    pollfd waiting[MAX_KNOCKS];
    const nfds_t count = list_knocks(waiting);
    const int ready = poll(waiting, count, static_cast<int>(microseconds / 1000));
    return ready > 0 && is_given_up(waiting);
}

void reply(int sock, char byte) {
    write_reply(sock, {&byte, 1});
}

void answer_request(int sock, char address, int *polls, int espa_poll) {
    constexpr const char *function = "espa_read_packet";
    LOG_AS(LEVEL_DEBUG, function, "Got ENQ request address %c", address);
    count_up_shared(polls);
    count_request(address);
    if (espa_poll != 0) {
        LOG_AS(LEVEL_DEBUG, function, "0 Read %x", shown_byte(ENQ));
        if (address == POLL_ADDRESS) {
            LOG_AS(LEVEL_DEBUG, function, "Got Poll ENQ. write EOT");
            write_reply(sock, POLL_REPLY);
        } else if (address == SELECT_ADDRESS) {
            LOG_AS(LEVEL_DEBUG, function, "Got Select ENQ. write ACK");
            reply(sock, ACK);
        }
    }
    reply(sock, ACK);
}

void echo_end_of_transmission(int sock, int *polls) {
    const int open_requests = load_shared(*polls);
    store_shared(polls, open_requests > 0 ? open_requests - 1 : 0);
    LOG_AS(LEVEL_DEBUG, "espa_read_packet", "EOT received");
    reply(sock, EOT);
}

// A reload may change it while the reader waits for the rest of a packet.
bool fails_when_closed(const espa_options_t &options) {
    return options.recover_link != nullptr && load_shared(*options.recover_link) != 0;
}

// From the block check character on, which follows the ETX at `packet[etx]`; results as
// espa_read_packet().
int finish_block(int sock, char *packet, int etx, const espa_options_t &options) {
    constexpr const char *function = "espa_read_packet";
    char *check = packet + etx + 1;
    const int ready = wait_data(sock);
    if (ready <= 0) {
        return ready;
    }
    const ssize_t got = read_byte(sock, check);
    if (got <= 0 && fails_when_closed(options)) {
        return -1;
    }
    LOG_AS(LEVEL_DEBUG, function, "3 Read %.02x\n", shown_byte(*check));
    check[1] = '\0';
    if (!options.leaves_answer || etx == 1) {  // an empty packet goes no further
        LOG_AS(LEVEL_DEBUG, function, "Got ETX. send ACK");
        reply(sock, ACK);
    }
    return etx;
}

// Everything from SOH on; results as espa_read_packet().
int read_block(int sock, char *packet, int maxlen, const espa_options_t &options) {
    packet[0] = SOH;
    enter_state(line_state_t::RECEIVING);
    int stored = 0;
    while (stored < maxlen - 1) {
        char *place = packet + stored + 1;
        const int ready = wait_data(sock);
        if (ready <= 0) {
            return ready;
        }
        const ssize_t got = read_byte(sock, place);
        LOG_AS(LEVEL_DEBUG, "espa_read_packet", "2 Read %.02x\n", shown_byte(*place));
        if (got < 0 || (got == 0 && fails_when_closed(options))) {
            return -1;
        }
        if (got == 0) {
            // A closed connection is always readable.
            if (pause_until_given_up(CLOSED_PEER_PAUSE_US)) {
                return -1;
            }
        } else if (*place == ETX) {
            return finish_block(sock, packet, stored + 1, options);
        } else if (*place == EOT) {
            *place = ETX;
            return stored;
        } else {
            stored++;
        }
    }
    packet[maxlen] = '\0';
    return stored;
}

// wait_data() while somebody else is heard, who may knock all the time.
int wait_for_data_or_knock(int sock) {
    constexpr int64_t WAIT_US = READ_WAIT_SECONDS * int64_t{1'000'000};
    const int64_t until_us = microseconds_passed() + WAIT_US;
    for (int64_t left_us = WAIT_US; left_us > 0; left_us = until_us - microseconds_passed()) {
        pollfd waiting[1 + MAX_KNOCKS] = {{sock, POLLIN | POLLPRI, 0}};
        const nfds_t count = 1 + list_knocks(waiting + 1);
        const int ready = poll(waiting, count, static_cast<int>(left_us / 1000) + 1);
        if (ready > 0 && waiting[0].revents != 0) {
            return (waiting[0].revents & POLLPRI) != 0 ? -1 : 1;
        }
        if (ready > 0 && is_given_up(waiting + 1)) {
            return -1;
        }
    }
    return 0;
}

// Counts a wait that ended like this, and returns how it did.
int note_silence(int ready) {
    my_stats().silence_seconds.add(ready == 0 ? READ_WAIT_SECONDS : 0);
    return ready;
}

}  // namespace

void hear_while_waiting(const knock_t *knock) noexcept {
    heard = knock;
}

int wait_data(int sock) noexcept {
    if (sock < 0 || sock >= FD_SETSIZE) {
        return -1;
    }
    if (heard != nullptr) {
        return note_silence(wait_for_data_or_knock(sock));
    }
    timeval left{READ_WAIT_SECONDS, 0};  // select counts it down, so an interrupted wait goes on
    fd_set readable;
    fd_set exceptional;
    int has_data = 0;
    do {
        FD_ZERO(&readable);
        FD_ZERO(&exceptional);
        FD_SET(sock, &readable);
        FD_SET(sock, &exceptional);
        has_data = select(sock + 1, &readable, nullptr, &exceptional, &left);
    } while (has_data < 0 && errno == EINTR);
    LOG(LEVEL_DEBUG, "has_data = %d\n", has_data);
    if (has_data > 0 && FD_ISSET(sock, &exceptional)) {
        return -1;
    }
    return note_silence(has_data);
}

ssize_t read_byte(int sock, char *byte) noexcept {
    return read_bytes(sock, byte, 1);
}

ssize_t read_bytes(int sock, char *bytes, size_t size) noexcept {
    ssize_t got = 0;
    do {
        got = read(sock, bytes, size);
    } while (got < 0 && errno == EINTR);
    my_stats().received_bytes.add(got > 0 ? static_cast<uint64_t>(got) : 0);
    return got;
}

void write_reply(int sock, std::string_view bytes) noexcept {
    for (const char byte : bytes) {
        if (send(sock, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) != 1) {
            return;
        }
    }
}

int espa_read_packet(int sock, char *packet, int maxlen, int *polls, int espa_poll,
                     const espa_options_t &options) noexcept {
    if (maxlen <= 0) {
        return 0;
    }
    int ready = wait_data(sock);
    if (ready <= 0) {
        return ready < 0 ? -1 : 0;
    }
    char byte = 0;
    if (read_byte(sock, &byte) <= 0) {
        return -1;
    }
    LOG(LEVEL_DEBUG, "Read %.02x\n", shown_byte(byte));
    if (byte == SOH) {
        return read_block(sock, packet, maxlen, options);
    }
    uint64_t dropped = 1;
    if (byte >= '0' && byte <= '9') {
        const char address = byte;
        ready = wait_data(sock);
        if (ready <= 0) {
            return ready;
        }
        const ssize_t got = read_byte(sock, &byte);
        if (got <= 0 && fails_when_closed(options)) {
            return -1;
        }
        if (got > 0 && byte == ENQ) {
            answer_request(sock, address, polls, espa_poll);
            return 1;
        }
        dropped += got > 0 ? 1 : 0;
    }
    if (byte == EOT) {
        echo_end_of_transmission(sock, polls);
        return 1;
    }
    my_stats().noise_bytes.add(dropped);
    return ESPA_UNEXPECTED;
}

int ascii_read_packet(int sock, char *packet, int maxlen, int * /*polls*/) noexcept {
    for (int length = 0; length < maxlen;) {
        const int ready = wait_data(sock);
        if (ready <= 0) {
            return ready;
        }
        char *place = packet + length;
        if (read_byte(sock, place) <= 0) {
            return -1;
        }
        LOG(LEVEL_DEBUG, "2 Read %.02x\n", shown_byte(*place));
        if (*place == '\n' || *place == '\r') {
            *place = '\0';
            return length;
        }
        length++;
        enter_state(line_state_t::RECEIVING);
        if (length == maxlen - 1) {
            packet[length] = '\0';
            return length;
        }
    }
    return 0;
}
