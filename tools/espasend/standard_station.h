// The control station of a line that follows the link procedure of ESPA 4.4.4 (ISO 1745 basic mode), by
// the standard and by nothing that is known of vesperd.
#pragma once

#include "control_station.h"

class standard_station_t : public traced_line_t {
  public:
    // own  its address, a digit
    standard_station_t(int fd, int wait_seconds, FILE *trace, char own) noexcept
        : traced_line_t(fd, wait_seconds, trace), own_(own) {}

    // How often a select or a packet that is refused, or not answered, is sent again, and how many of the
    // first packets of a call get a wrong block check character.
    void set_repeats(int repeats, int garbled) {
        repeats_ = repeats;
        garbled_ = garbled;
    }
    // Whether each answer to a packet is asked for once more, and has to be the same.
    void set_asks_again(bool asks) { asks_again_ = asks; }

    // Polls a station. What it reports is acknowledged and goes to the trace.
    //   report  receives its packet, from SOH to the block check character; empty: it has none
    bool poll_station(char address, std::string *report);

    // Delivers a call to a station: select, packet, EOT.
    bool send_call(char to, const call_t &call);

    // Polls a station of which nobody expects that it is there.
    bool poll_other(char address);

    // Waits for a moment in which nothing must come: the answers are over, and whoever says more does not
    // follow the procedure.
    bool expect_silence();

    // Sends a call to a station whose answers are not heard on this line.
    bool send_unheard(char to, const call_t &call);

  private:
    enum class answer_t { ACKNOWLEDGED, REFUSED, NONE, OTHER, FAILED };

    bool select(char to);
    bool deliver(std::string_view packet);
    answer_t read_answer();
    bool ask_again(answer_t answer);
    bool take_report(char address, std::string *report);
    bool read_packet(std::string *packet);
    bool give_up(const std::string &why);
    std::string request(char address) const;

    char own_;
    int repeats_ = 2;
    int garbled_ = 0;
    bool asks_again_ = false;
    std::string last_;  // the bytes of the last answer
};
