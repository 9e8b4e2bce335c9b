#include "control_station.h"

#include "clock.h"
#include "espa.h"

namespace {

constexpr std::string_view END_OF_TRANSMISSION("\x04", 1);
constexpr std::string_view SELECT("1\x05", 2);
constexpr std::string_view ACKNOWLEDGED("\x06", 1);

constexpr long REPEAT_PAUSE_US = 500'000;

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

bool control_station_t::end_transmission() {
    if (!send_bytes(END_OF_TRANSMISSION)) {
        return false;
    }
    std::string answer;
    while (!answer.ends_with(EOT)) {
        const int byte = read_byte();
        if (byte < 0) {
            return fail("no echo of EOT: " + error());
        }
        answer += static_cast<char>(byte);
    }
    show("<- ", answer);
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
            return fail("no echo of EOT: " + error());
        }
        select_answer_ += static_cast<char>(byte);
    }
    show("<- ", select_answer_.substr(1) + std::string(END_OF_TRANSMISSION));
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
        if (trace() != nullptr) {
            fprintf(trace(), "not acknowledged, repeating the call\n");
        }
        pause_us(REPEAT_PAUSE_US);
    }
}

bool control_station_t::send_line(std::string_view text) {
    return send_bytes(std::string(text) + "\r\n");
}

bool control_station_t::expect_answer(char *answer) {
    const int byte = read_byte();
    if (byte < 0) {
        return fail("no ACK: " + error());
    }
    *answer = static_cast<char>(byte);
    show("<- ", {answer, 1});
    return true;
}
