// The control station's side of an ESPA 4.4.4 line, and the sender's side of a plain ASCII line.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

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

// Bytes in readable form: control characters by name, text in single quotes.
std::string describe_bytes(std::string_view bytes);

// One end of a connected line. Every operation returns false when the line failed or the expected
// answer did not come; error() then says why in one line.
class control_station_t {
  public:
    // fd           socket or serial device, owned by the caller
    // wait_seconds the longest wait for an answer
    // trace        where each exchange is printed, or null
    control_station_t(int fd, int wait_seconds, FILE *trace) noexcept
        : fd_(fd), wait_seconds_(wait_seconds), trace_(trace) {}

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

    // Sends bytes as they stand.
    bool send_bytes(std::string_view bytes);

    // Waits for exactly these bytes.
    bool expect(std::string_view bytes);

    // Whether the other end has closed the connection.
    bool is_closed() const;

    const std::string &error() const { return error_; }

  private:
    bool learn_select_answer();
    bool expect_answer(char *answer);
    int read_byte();
    bool fail(const std::string &why);

    int fd_;
    int wait_seconds_;
    FILE *trace_;
    int repeats_ = 0;
    int garbled_ = 0;
    std::string select_answer_;
    std::string error_;
};
