#include "station.h"

#include <utility>

namespace {

constexpr int64_t SILENCE_LIMIT_US = 10'000'000;
constexpr int MAX_REPEATS = 2;  // of a report that was answered with NAK

const std::string ACKNOWLEDGED(1, ACK);
const std::string END_OF_TRANSMISSION(1, EOT);

bool is_digit(char byte) {
    return byte >= '0' && byte <= '9';
}

}  // namespace

station_t::heard_t station_t::take(char byte, int64_t now_us, std::string_view report,
                                   std::string *reply) {
    if (now_us - last_valid_us_ > SILENCE_LIMIT_US) {
        enter(state_t::NEUTRAL);
    }
    const bool may_be_echo = std::exchange(has_just_acknowledged_, false);
    heard_t heard = heard_t::VALID;
    if (is_in_packet()) {
        heard = take_inside(byte, report, reply);
    } else if (byte != ACK || !may_be_echo) {
        heard = take_outside(byte, report, reply);
    }
    if (heard != heard_t::NOISE || has_digit_) {
        last_valid_us_ = now_us;
    }
    return heard;
}

bool station_t::is_polled_by(char byte) const noexcept {
    return byte == ENQ && has_digit_ && address_ == own_ && state_ != state_t::CONTROL &&
           !is_in_packet();
}

std::string station_t::answer(verdict_t verdict) {
    constexpr char REASONS[] = {'\0', '1', '2', '3'};
    std::string sent;
    if (verdict == verdict_t::TAKEN) {
        acknowledge(&sent);
    } else {
        say({REASONS[static_cast<int>(verdict)], NAK}, &sent);
    }
    answers_packets_ = true;
    return sent;
}

station_t::heard_t station_t::take_outside(char byte, std::string_view report, std::string *reply) {
    const bool had_digit = std::exchange(has_digit_, is_digit(byte));
    if (had_digit && byte == ENQ) {
        return take_request(report, reply);
    }
    if (had_digit && byte != NAK) {
        drop(1);  // it was no address
    }
    switch (byte) {
        case SOH:
            packet_ = SOH;
            part_ = part_t::BEFORE_ETX;
            return heard_t::VALID;
        case EOT:
            enter(state_t::NEUTRAL);
            return heard_t::VALID;
        case ENQ:
            ask_again(reply);
            return heard_t::VALID;
        case ACK:
            return take_ack(report, reply);
        case NAK:
            return take_nak(report, reply);
        default:
            break;
    }
    if (has_digit_) {
        address_ = byte;
    } else {
        drop(1);
    }
    return heard_t::NOISE;  // a digit is nothing yet
}

station_t::heard_t station_t::take_inside(char byte, std::string_view report, std::string *reply) {
    if (part_ == part_t::CHECK) {
        packet_ += byte;
        part_ = part_t::OUTSIDE;
        if (!is_addressed()) {
            enter(state_t::OTHERS);
            return heard_t::VALID;
        }
        is_garbled_ = false;
        return heard_t::PACKET;
    }
    if (byte == SOH || byte == EOT || byte == ENQ) {
        return leave_packet(byte, report, reply);
    }
    if (byte == ETX) {
        part_ = part_t::CHECK;
    }
    if (packet_.size() < PACKET_SIZE) {
        packet_ += byte;
    }
    return heard_t::VALID;
}

// Its end is lost: none of these stands in a packet. A digit before ENQ is an address.
station_t::heard_t station_t::leave_packet(char byte, std::string_view report, std::string *reply) {
    has_digit_ = is_digit(packet_.back());
    address_ = packet_.back();
    drop(packet_.size() - (has_digit_ ? 1 : 0));
    part_ = part_t::OUTSIDE;
    return take_outside(byte, report, reply);
}

station_t::heard_t station_t::take_request(std::string_view report, std::string *reply) {
    const bool is_selecting = state_ == state_t::CONTROL;
    if (address_ == own_ && is_selecting) {
        enter(state_t::SELECTED);
        acknowledge(reply);
    } else if (address_ == own_ && report.empty()) {
        enter(state_t::NEUTRAL);
        say(END_OF_TRANSMISSION, reply);
    } else if (address_ == own_) {
        enter(state_t::BIDDING);
        say({control_, ENQ}, reply);
    } else if (address_ == control_) {
        enter(state_t::CONTROL);
    } else {
        enter(is_selecting ? state_t::OTHERS : state_t::NEUTRAL);
    }
    return heard_t::REQUEST;
}

station_t::heard_t station_t::take_ack(std::string_view report, std::string *reply) {
    if (state_ == state_t::REPORTING) {
        end_report(reply);
        return heard_t::REPORTED;
    }
    if (state_ == state_t::BIDDING && !report.empty()) {
        state_ = state_t::REPORTING;
        say(std::string(report), reply);
    } else {
        enter(state_t::OTHERS);
    }
    return heard_t::VALID;
}

station_t::heard_t station_t::take_nak(std::string_view report, std::string *reply) {
    if (state_ == state_t::REPORTING && repeats_ < MAX_REPEATS && !report.empty()) {
        repeats_++;
        say(std::string(report), reply);
    } else if (state_ == state_t::REPORTING || state_ == state_t::BIDDING) {
        end_report(reply);
        return heard_t::REFUSED;
    }
    return heard_t::VALID;
}

void station_t::end_report(std::string *reply) {
    enter(state_t::NEUTRAL);
    say(END_OF_TRANSMISSION, reply);
}

// Who asks after noise asks for the answer to a packet of which nothing was understood: an ACK of before
// would be taken for its own.
void station_t::ask_again(std::string *reply) {
    const bool is_talked_to = state_ == state_t::SELECTED || answers_packets_;
    if (!is_garbled_) {
        *reply += last_answer_;
        has_just_acknowledged_ = last_answer_ == ACKNOWLEDGED;
    } else if (is_talked_to) {
        *reply += answer(verdict_t::GARBLED);
        is_garbled_ = false;
    }
}

void station_t::acknowledge(std::string *reply) {
    say(ACKNOWLEDGED, reply);
    has_just_acknowledged_ = true;
}

void station_t::say(const std::string &answer, std::string *reply) {
    last_answer_ = answer;
    *reply += answer;
}

void station_t::enter(state_t state) {
    state_ = state;
    if (is_in_packet()) {
        drop(packet_.size());
    }
    part_ = part_t::OUTSIDE;
    has_digit_ = false;
    last_answer_.clear();
    answers_packets_ = false;
    is_garbled_ = false;
    repeats_ = 0;
}

void station_t::drop(size_t bytes) {
    noise_bytes_ += bytes;
    is_garbled_ = true;
}

// Whether a packet is ours. On a line between two nobody has to be selected.
bool station_t::is_addressed() const noexcept {
    return state_ == state_t::SELECTED || state_ == state_t::NEUTRAL;
}
