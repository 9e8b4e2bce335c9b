// One station of an ESPA 4.4.4 line that follows the link procedure (ISO 1745 basic mode).
//
// Addresses are the digits '0' to '9'. The control station polls the others (address, ENQ) and selects one
// for a packet (its own address, ENQ, the other's address, ENQ); EOT ends everything. What the other
// stations answer may be heard or not. From each state, by what is heard:
//
//            own address,   control's      other's        packet for    ACK         EOT
//            ENQ            address, ENQ   address, ENQ   whoever
//  NEUTRAL   polled         CONTROL        NEUTRAL        is ours       OTHERS      NEUTRAL
//  CONTROL   SELECTED, ACK  CONTROL        OTHERS         OTHERS        OTHERS      NEUTRAL
//  SELECTED  polled         CONTROL        NEUTRAL        is ours       SELECTED    NEUTRAL
//  OTHERS    polled         CONTROL        NEUTRAL        OTHERS        OTHERS      NEUTRAL
//  BIDDING   polled         CONTROL        NEUTRAL        OTHERS        REPORTING,  NEUTRAL
//                                                                       the report
//  REPORTING polled         CONTROL        NEUTRAL        OTHERS        NEUTRAL,    NEUTRAL
//                                                                       EOT
//
// Polled: EOT and NEUTRAL; or, where a report waits, the control station's address, ENQ and BIDDING.
// A packet that is ours is answered with ACK, or with a digit and NAK, and changes no state. NAK for a
// report has it sent again, two times, before EOT gives it up until the next poll; for a bid it means EOT.
// An ENQ without an address asks for the last answer again. After ten seconds without anything valid the
// state is NEUTRAL. Everything else is noise.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "espa.h"

// The answers to a packet.
enum class verdict_t {
    TAKEN,
    GARBLED,      // '1' NAK
    CANNOT_TAKE,  // '2' NAK
    SENSELESS,    // '3' NAK
};

class station_t {
  public:
    // What a byte has led to.
    enum class heard_t {
        NOISE,     // nothing: it was dropped, or is a digit of which nobody knows yet
        REQUEST,   // an address and ENQ; see requested()
        VALID,     // something else of the procedure
        PACKET,    // one that is ours and waits for answer(); see packet()
        REPORTED,  // the report has been acknowledged
        REFUSED,   // it has been given up until the next poll
    };

    // own, control  digits
    station_t(char own, char control) noexcept : own_(own), control_(control) {}

    // Takes a byte of the line.
    //   now_us  by a monotonic clock
    //   report  the packet that waits for a poll, SOH to block check character; empty: none
    //   reply   receives what has to be sent at once
    heard_t take(char byte, int64_t now_us, std::string_view report, std::string *reply);

    // Whether this byte is the last of a poll of this station.
    bool is_polled_by(char byte) const noexcept;

    // The answer to the packet that take() has brought, to be sent now.
    std::string answer(verdict_t verdict);

    // From SOH to the block check character; valid until the next take(). What is longer than
    // PACKET_SIZE is cut, without its ETX.
    std::string_view packet() const noexcept { return packet_; }
    bool is_in_packet() const noexcept { return part_ != part_t::OUTSIDE; }

    char requested() const noexcept { return address_; }
    // How many bytes have been dropped so far.
    uint64_t noise_bytes() const noexcept { return noise_bytes_; }

  private:
    enum class state_t { NEUTRAL, CONTROL, SELECTED, OTHERS, BIDDING, REPORTING };
    enum class part_t { OUTSIDE, BEFORE_ETX, CHECK };

    heard_t take_outside(char byte, std::string_view report, std::string *reply);
    heard_t take_inside(char byte, std::string_view report, std::string *reply);
    heard_t leave_packet(char byte, std::string_view report, std::string *reply);
    heard_t take_request(std::string_view report, std::string *reply);
    heard_t take_ack(std::string_view report, std::string *reply);
    heard_t take_nak(std::string_view report, std::string *reply);
    void end_report(std::string *reply);
    void ask_again(std::string *reply);
    void acknowledge(std::string *reply);
    void say(const std::string &answer, std::string *reply);
    void enter(state_t state);
    void drop(size_t bytes);
    bool is_addressed() const noexcept;

    char own_;
    char control_;
    state_t state_ = state_t::NEUTRAL;
    part_t part_ = part_t::OUTSIDE;
    char address_ = '\0';  // the digit that came last, while what follows it is not known
    bool has_digit_ = false;
    std::string packet_;
    std::string last_answer_;
    bool has_just_acknowledged_ = false;  // a converter may bring our own bytes back
    bool answers_packets_ = false;        // the last answer was to a packet
    bool is_garbled_ = false;             // noise came since
    int repeats_ = 0;
    int64_t last_valid_us_ = 0;
    uint64_t noise_bytes_ = 0;
};
