#include "proto.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "alarm.h"
#include "clock.h"
#include "files.h"
#include "logger.h"
#include "stats.h"

namespace {

constexpr int READ_WAIT_SECONDS = 15;
constexpr long CLOSED_PEER_PAUSE_US = 1'000'000;
constexpr int FIRST_INTERVAL_SECONDS = 4;
constexpr int SECOND_INTERVAL_SECONDS = 24;
constexpr int LATER_INTERVAL_SECONDS = 299;
constexpr int SUPPRESSION_LINE_SIZE = 1024;
constexpr char POLL_ADDRESS = '2';
constexpr char SELECT_ADDRESS = '1';
constexpr std::string_view POLL_REPLY = "2\x05\x1F";  // the address, ENQ and US

// Returns the new count.
int count_up(int *count) {
    const int before = load_shared(*count);
    const int after = before < INT_MAX ? before + 1 : before;
    store_shared(count, after);
    return after;
}

ssize_t read_byte(int sock, char *byte) {
    ssize_t got = 0;
    do {
        got = read(sock, byte, 1);
    } while (got < 0 && errno == EINTR);
    my_stats().received_bytes.add(got > 0 ? 1 : 0);
    return got;
}

void reply(int sock, char byte) {
    write_reply(sock, {&byte, 1});
}

void answer_request(int sock, char address, int *polls, int espa_poll) {
    constexpr const char *function = "espa_read_packet";
    LOG_AS(LEVEL_DEBUG, function, "Got ENQ request address %c", address);
    count_up(polls);
    my_stats().polls.add();
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
            pause_us(CLOSED_PEER_PAUSE_US);  // a closed connection is always readable
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

// Logs on behalf of alarm_time().
void warn_of_no_file(const char *path) {
    static once_per_load_t warning;
    if (warning.is_first()) {
        LOG_AS(LEVEL_WARNING, "alarm_time", "%s is no regular file and suppresses nothing\n", path);
    }
}

// The number that an operator wrote into a suppression file; 0 when there is none.
int suppression_number(const char *path) {
    char line[SUPPRESSION_LINE_SIZE];
    const unique_file_t file = open_text(path);
    if (!file && errno == NOT_REGULAR) {
        warn_of_no_file(path);
    }
    if (!file || fgets(line, sizeof line, file.get()) == nullptr) {
        return 0;
    }
    return static_cast<int>(strtol(line, nullptr, 0));  // the low 32 bits, as documented
}

bool is_suppressed(const pager_t *pager, const char *name) {
    char path[PATH_SIZE];
    spool_path(path, pager, name);
    return suppression_number(path) < 0;
}

// Whether an alarm at this level may fire again.
bool interval_is_over(int index, int elapsed_seconds) {
    switch (index) {
        case 0:
            return true;
        case 1:
            return elapsed_seconds > FIRST_INTERVAL_SECONDS;
        case 2:
            return elapsed_seconds > SECOND_INTERVAL_SECONDS;
        default:
            return index > 2 && elapsed_seconds > LATER_INTERVAL_SECONDS;
    }
}

}  // namespace

int wait_data(int sock) noexcept {
    if (sock < 0 || sock >= FD_SETSIZE) {
        return -1;
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
    return has_data;
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
    }
    if (byte == EOT) {
        echo_end_of_transmission(sock, polls);
        return 1;
    }
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

int alarm_time(pager_t *pager, int alrm) noexcept {
    const int now = seconds_now();
    const alarm_slot_t slot = alarm_slot(pager, alrm);
    if (alrm == ALARM_MESSAGE) {
        count_up(slot.index);
        store_shared(slot.last, now);
        return 1;
    }
    const char *name = alarm_name(alrm);
    if (is_suppressed(pager, name)) {
        LOG(LEVEL_WARNING, "Alarm %s  supressed\n", name);
        count_alarm(alrm, alarm_result_t::SUPPRESSED);
        return 0;
    }
    const int elapsed = seconds_between(load_shared(*slot.last), now);
    if (!interval_is_over(load_shared(*slot.index), elapsed)) {
        count_alarm(alrm, alarm_result_t::LIMITED);
        return 0;
    }
    store_shared(slot.last, now);
    return count_up(slot.index);
}
