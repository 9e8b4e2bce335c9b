#include "control_station.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "clock.h"
#include "espa.h"

namespace {

constexpr std::string_view END_OF_TRANSMISSION("\x04", 1);
constexpr std::string_view SELECT("1\x05", 2);
constexpr std::string_view ACKNOWLEDGED("\x06", 1);

constexpr long REPEAT_PAUSE_US = 500'000;

struct control_name_t {
    char byte;
    const char *name;
};
constexpr std::array<control_name_t, 11> control_names = {{{SOH, "SOH"},
                                                           {STX, "STX"},
                                                           {ETX, "ETX"},
                                                           {EOT, "EOT"},
                                                           {ENQ, "ENQ"},
                                                           {ACK, "ACK"},
                                                           {NAK, "NAK"},
                                                           {RS, "RS"},
                                                           {US, "US"},
                                                           {'\r', "CR"},
                                                           {'\n', "LF"}}};

bool is_text(char byte) {
    return byte >= ' ' && byte <= '~' && byte != '\'';
}

std::string control_name(char byte) {
    for (const control_name_t &known : control_names) {
        if (known.byte == byte) {
            return known.name;
        }
    }
    char hex[8];
    snprintf(hex, sizeof hex, "0x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    return hex;
}

// A reset line must not end the program, and a serial device takes no send().
ssize_t write_some(int fd, std::string_view bytes) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? write(fd, bytes.data(), bytes.size()) : sent;
}

void append_block(std::string *packet, char identifier, const std::string &value) {
    if (!value.empty()) {
        *packet += packet->size() == 2 ? STX : RS;
        *packet += identifier;
        *packet += US;
        *packet += value;
    }
}

}  // namespace

std::string compose_packet(const call_t &call) {
    std::string packet{SOH, '1'};
    append_block(&packet, '1', call.address);
    append_block(&packet, '2', call.message);
    append_block(&packet, '3', call.beep);
    append_block(&packet, '4', call.type);
    append_block(&packet, '5', call.transmissions);
    append_block(&packet, '6', call.priority);
    packet += ETX;
    packet += '\0';  // the place of the block check character
    if (packet.size() > MAX_PACKET_LENGTH) {
        return "";
    }
    appendBCC(packet.data(), static_cast<int>(packet.size()) - 2);
    return packet;
}

std::string describe_bytes(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        size_t length = 0;
        while (length < bytes.size() && is_text(bytes[length])) {
            length++;
        }
        if (!text.empty()) {
            text += ' ';
        }
        if (length > 0) {
            text += '\'' + std::string(bytes.substr(0, length)) + '\'';
        } else {
            text += control_name(bytes.front());
            length = 1;
        }
        bytes.remove_prefix(length);
    }
    return text;
}

bool control_station_t::end_transmission() {
    if (!send_bytes(END_OF_TRANSMISSION)) {
        return false;
    }
    std::string answer;
    while (!answer.ends_with(EOT)) {
        const int byte = read_byte();
        if (byte < 0) {
            return fail("no echo of EOT: " + error_);
        }
        answer += static_cast<char>(byte);
    }
    if (trace_ != nullptr) {
        fprintf(trace_, "<- %s\n", describe_bytes(answer).c_str());
    }
    return true;
}

// The echo of an EOT marks the end of whatever answers a select.
bool control_station_t::learn_select_answer() {
    if (!send_bytes(SELECT) || !expect(ACKNOWLEDGED) || !send_bytes(END_OF_TRANSMISSION)) {
        return false;
    }
    select_answer_ = std::string(ACKNOWLEDGED);
    for (int byte = read_byte(); byte != EOT; byte = read_byte()) {
        if (byte < 0) {
            select_answer_.clear();
            return fail("no echo of EOT: " + error_);
        }
        select_answer_ += static_cast<char>(byte);
    }
    if (trace_ != nullptr) {
        fprintf(
            trace_, "<- %s\n",
            describe_bytes(select_answer_.substr(1) + std::string(END_OF_TRANSMISSION)).c_str());
    }
    return true;
}

bool control_station_t::send_call(const call_t &call) {
    const std::string packet = compose_packet(call);
    if (packet.empty()) {
        return fail("the call does not fit into a packet of " + std::to_string(MAX_PACKET_LENGTH) +
                    " bytes");
    }
    if (!end_transmission() || (select_answer_.empty() && !learn_select_answer())) {
        return false;
    }
    return send_bytes(SELECT) && expect(select_answer_) && send_packet(packet) &&
           end_transmission();
}

bool control_station_t::send_packet(std::string_view packet) {
    for (int attempt = 0;; attempt++) {
        std::string sent(packet);
        sent.back() ^= static_cast<char>(attempt < garbled_);  // the block check character
        char answer = 0;
        if (!send_bytes(sent) || !expect_answer(&answer)) {
            return false;
        }
        if (answer == ACK) {
            return true;
        }
        if (answer != NAK) {
            return fail("expected ACK, got " + describe_bytes({&answer, 1}));
        }
        if (attempt == repeats_) {
            return fail("not acknowledged, after " + std::to_string(repeats_) + " repeats");
        }
        if (trace_ != nullptr) {
            fprintf(trace_, "not acknowledged, repeating the call\n");
        }
        pause_us(REPEAT_PAUSE_US);
    }
}

bool control_station_t::send_line(std::string_view text) {
    return send_bytes(std::string(text) + "\r\n");
}

bool control_station_t::send_bytes(std::string_view bytes) {
    if (trace_ != nullptr) {
        fprintf(trace_, "-> %s\n", describe_bytes(bytes).c_str());
    }
    while (!bytes.empty()) {
        const ssize_t sent = write_some(fd_, bytes);
        if (sent < 0 && errno != EINTR) {
            return fail(std::string("cannot send: ") + strerror(errno));
        }
        bytes.remove_prefix(static_cast<size_t>(sent > 0 ? sent : 0));
    }
    return true;
}

bool control_station_t::expect(std::string_view bytes) {
    std::string answer;
    while (answer.size() < bytes.size()) {
        const int byte = read_byte();
        if (byte < 0) {
            return fail("no " + describe_bytes(bytes) + ": " + error_);
        }
        answer += static_cast<char>(byte);
    }
    if (trace_ != nullptr) {
        fprintf(trace_, "<- %s\n", describe_bytes(answer).c_str());
    }
    return answer == bytes ||
           fail("expected " + describe_bytes(bytes) + ", got " + describe_bytes(answer));
}

bool control_station_t::expect_answer(char *answer) {
    const int byte = read_byte();
    if (byte < 0) {
        return fail("no ACK: " + error_);
    }
    *answer = static_cast<char>(byte);
    if (trace_ != nullptr) {
        fprintf(trace_, "<- %s\n", describe_bytes({answer, 1}).c_str());
    }
    return true;
}

bool control_station_t::is_closed() const {
    char byte = 0;
    return recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// Returns the byte, or -1 with error() set.
int control_station_t::read_byte() {
    pollfd waiting{fd_, POLLIN, 0};
    const int ready = poll(&waiting, 1, wait_seconds_ * 1000);
    if (ready == 0) {
        fail("no answer within " + std::to_string(wait_seconds_) + " seconds");
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

bool control_station_t::fail(const std::string &why) {
    error_ = why;
    return false;
}
