// The control station's side of an ESPA 4.4.4 line, and the sender's side of a plain ASCII line.
#pragma once

#include <string>
#include <string_view>

#include "traced_line.h"

// What a call record carries; an empty field is left out of the packet.
struct call_t {
    std::string address;        // data identifier '1'
    std::string message;        // data identifier '2'
    std::string beep;           // data identifier '3'
    std::string type;           // data identifier '4'
    std::string transmissions;  // data identifier '5'
    std::string priority;       // data identifier '6'
};

// The longest packet that compose_packet() makes, check character included: what vesperd can
// receive.
constexpr size_t MAX_PACKET_LENGTH = 1024;

// The data packet of a call, from SOH to the block check character. Empty when it would exceed
// MAX_PACKET_LENGTH.
std::string compose_packet(const call_t &call);

// The sender that a daemon without espa_address expects, which waits for an echo of each EOT.
class control_station_t : public traced_line_t {
  public:
    using traced_line_t::traced_line_t;

    // From now on sends a packet that was answered with NAK again, `repeats` times at most, and gives
    // the first `garbled` packets of a call a wrong block check character.
    void set_repeats(int repeats, int garbled) {
        repeats_ = repeats;
        garbled_ = garbled;
    }

    // Sends EOT and waits for its echo, until which any other answer is dropped.
    bool end_transmission();

    // Delivers one call: EOT, select, data packet, EOT, each with its answer. The first call finds
    // out whether a select is answered with one ACK or two (vesperd's espa_poll).
    bool send_call(const call_t &call);

    // Sends a data packet and waits for its ACK.
    bool send_packet(std::string_view packet);

    // Sends a text and CR LF; ASCII lines have no answers.
    bool send_line(std::string_view text);

  private:
    bool learn_select_answer();
    bool expect_answer(char *answer);

    int repeats_ = 0;
    int garbled_ = 0;
    std::string select_answer_;
};
