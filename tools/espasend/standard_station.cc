#include "standard_station.h"

#include "espa.h"

namespace {

constexpr std::string_view END_OF_TRANSMISSION("\x04", 1);
constexpr std::string_view ASK("\x05", 1);
constexpr std::string_view ACKNOWLEDGED("\x06", 1);
constexpr std::string_view GARBLED("1\x15", 2);

constexpr int OTHER_STATION_SECONDS = 1;

constexpr int SILENCE_MS = 100;

constexpr const char *LOOK_AT_PROCEDURE =
    ": the other side does not follow the procedure. Has the line an espa_address?";
constexpr const char *LOOK_AT_SPEED =
    ": an answer that is none. Look at baud rate, data bits and parity";
constexpr const char *LOOK_AT_ADDRESS =
    "connected, and nothing answers: is espa_address the address that is called, and has the line "
    "kept to ESPA?";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

std::string standard_station_t::request(char address) const {
    return {address, ENQ};
}

bool standard_station_t::poll_station(char address, std::string *report) {
    report->clear();
    for (int attempt = 0; attempt <= repeats_; attempt++) {
        if (!send_bytes(request(address))) {
            return false;
        }
        const int first = read_byte();
        if (first >= 0) {
            last_ = std::string(1, static_cast<char>(first));
        }
        if (first == own_) {
            return take_report(address, report);
        }
        if (first >= 0) {
            show("<- ", last_);
            const bool is_usual = first == ACK || first == address;
            return first == EOT || give_up("got " + describe_bytes(last_) + " for a poll" +
                                           (is_usual ? LOOK_AT_PROCEDURE : LOOK_AT_SPEED));
        }
        if (is_closed()) {
            return false;
        }
    }
    return give_up(LOOK_AT_ADDRESS);
}

// From the station's own select on, of which the address has been read.
bool standard_station_t::take_report(char address, std::string *report) {
    if (read_byte() != ENQ) {
        return give_up("no select behind a station's address");
    }
    show("<- ", request(own_));
    bool is_right = send_bytes(ACKNOWLEDGED);
    for (int attempt = 0; is_right && attempt <= repeats_; attempt++) {
        if (!read_packet(report)) {
            return give_up("a report without an end: " + error());
        }
        if (checkBCC(report->c_str(), static_cast<int>(report->size()) - 2) != 0) {
            if (trace() != nullptr) {
                fprintf(trace(), "station %c reports: %s\n", address,
                        describe_bytes(*report).c_str());
            }
            return send_bytes(ACKNOWLEDGED) && expect(END_OF_TRANSMISSION);
        }
        is_right = send_bytes(GARBLED);
    }
    return give_up("a report is garbled again and again");
}

bool standard_station_t::read_packet(std::string *packet) {
    packet->clear();
    while (packet->size() < 2 || (*packet)[packet->size() - 2] != ETX) {
        const int byte = read_byte();
        if (byte < 0 || packet->size() == MAX_PACKET_LENGTH) {
            return false;
        }
        *packet += static_cast<char>(byte);
    }
    show("<- ", *packet);
    return true;
}

bool standard_station_t::send_call(char to, const call_t &call) {
    const std::string packet = compose_packet(call);
    if (packet.empty()) {
        return fail("the call does not fit into a packet of " + std::to_string(MAX_PACKET_LENGTH) +
                    " bytes");
    }
    return select(to) && deliver(packet) && send_bytes(END_OF_TRANSMISSION);
}

bool standard_station_t::send_unheard(char to, const call_t &call) {
    const std::string packet = compose_packet(call);
    return !packet.empty() && send_bytes(request(own_) + request(to)) && send_bytes(packet) &&
           send_bytes(END_OF_TRANSMISSION);
}

bool standard_station_t::poll_other(char address) {
    std::string report;
    if (!send_bytes(request(address))) {
        return false;
    }
    const int first = read_byte(OTHER_STATION_SECONDS);
    if (first == own_) {
        return take_report(address, &report);
    }
    if (first < 0 && trace() != nullptr) {
        fprintf(trace(), "station %c does not answer\n", address);
    }
    return first == EOT || send_bytes(END_OF_TRANSMISSION);
}

bool standard_station_t::select(char to) {
    for (int attempt = 0; attempt <= repeats_; attempt++) {
        if (!send_bytes(request(own_) + request(to))) {
            return false;
        }
        switch (read_answer()) {
            case answer_t::ACKNOWLEDGED:
                return true;
            case answer_t::OTHER:
                return give_up("got " + describe_bytes(last_) + " for a select" + LOOK_AT_SPEED);
            case answer_t::FAILED:
                return false;
            default:
                if (!send_bytes(END_OF_TRANSMISSION)) {
                    return false;
                }
        }
    }
    return fail(last_.empty() ? LOOK_AT_ADDRESS : "the station refuses its select");
}

bool standard_station_t::deliver(std::string_view packet) {
    for (int attempt = 0; attempt <= repeats_; attempt++) {
        std::string sent(packet);
        sent.back() ^= static_cast<char>(attempt < garbled_);  // the block check character
        if (!send_bytes(sent)) {
            return false;
        }
        const answer_t answer = read_answer();
        if (answer == answer_t::FAILED || !ask_again(answer)) {
            return false;
        }
        if (answer == answer_t::ACKNOWLEDGED) {
            return true;
        }
        if (answer == answer_t::OTHER) {
            return give_up("got " + describe_bytes(last_) + " for a packet" + LOOK_AT_SPEED);
        }
        if (trace() != nullptr && attempt < repeats_) {
            fprintf(trace(), "not acknowledged, repeating the call\n");
        }
    }
    return give_up(
        (last_.empty() ? "no answer to the packet, after " : "not acknowledged, after ") +
        std::to_string(repeats_) + " repeats");
}

// What a station says to a select or a packet: ACK, or NAK with or without a digit.
standard_station_t::answer_t standard_station_t::read_answer() {
    last_.clear();
    do {
        const int byte = read_byte();
        if (byte < 0) {
            return is_closed() ? answer_t::FAILED : answer_t::NONE;
        }
        last_ += static_cast<char>(byte);
    } while (last_.size() == 1 && is_digit(last_[0]));
    show("<- ", last_);
    if (last_ == ACKNOWLEDGED) {
        return answer_t::ACKNOWLEDGED;
    }
    return last_.back() == NAK ? answer_t::REFUSED : answer_t::OTHER;
}

bool standard_station_t::ask_again(answer_t answer) {
    if (!asks_again_ || (answer != answer_t::ACKNOWLEDGED && answer != answer_t::REFUSED)) {
        return true;
    }
    const std::string before = last_;
    if (!send_bytes(ASK) || read_answer() == answer_t::FAILED) {
        return false;
    }
    return last_ == before ||
           give_up("asked again it says " + (last_.empty() ? "nothing" : describe_bytes(last_)) +
                   " and not " + describe_bytes(before));
}

bool standard_station_t::expect_silence() {
    const std::string bytes = read_pending(SILENCE_MS);
    return bytes.empty() ||
           give_up("got " + describe_bytes(bytes) + " that nothing asked for" + LOOK_AT_PROCEDURE);
}

bool standard_station_t::give_up(const std::string &why) {
    send_bytes(END_OF_TRANSMISSION);
    return fail(why);
}
