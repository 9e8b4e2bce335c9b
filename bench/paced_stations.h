// The stations of many lines, played by one thread: each sends a call every so often, byte for byte at
// the speed of a serial line.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"

// Times are microseconds by clock.h's monotonic clock, 0 for what did not happen.
struct sent_call_t {
    int64_t last_byte_us = 0;
    int64_t acknowledged_us = 0;
};

class paced_stations_t {
  public:
    // socks      a connection for each line
    // period_us  from the beginning of a line's call to that of its next one; the calls of the lines
    //            are spread evenly over it. A call that has no ACK yet holds up the next one.
    // packet_of  the packet of the call with a number, counted from 0 over all lines
    paced_stations_t(std::vector<unique_fd_t> socks, int64_t period_us,
                     std::function<std::string(int)> packet_of);
    ~paced_stations_t() { stop(); }

    // Lets the calls that were begun come to their end.
    void stop();
    // By number; to be read when the stations have stopped.
    const std::vector<sent_call_t> &calls() const { return calls_; }
    // How many bytes left together on average: 1 as long as the stations keep up with the lines.
    double bytes_per_send() const;

  private:
    struct line_t {
        unique_fd_t sock;
        int64_t next_call_us;  // when it is due
        int64_t begun_us;
        std::string packet;
        size_t sent;
        int number;  // of the call
    };
    struct due_t {
        int64_t at_us;
        int line;
        bool operator>(const due_t &other) const { return at_us > other.at_us; }
    };

    void run();
    void send_what_is_due();
    void begin_call(line_t *line, int64_t now_us);
    void send_bytes(line_t *line, int64_t now_us);
    void wait_until(int64_t at_us);
    void take_answer(int line);

    std::vector<line_t> lines_;
    int64_t period_us_;
    std::function<std::string(int)> packet_of_;
    unique_fd_t answers_;
    std::priority_queue<due_t, std::vector<due_t>, std::greater<>> due_;
    std::vector<sent_call_t> calls_;
    int playing_ = 0;  // lines in a call
    long bytes_ = 0;
    long sends_ = 0;
    int64_t end_us_ = 0;  // no call that was begun takes longer
    std::atomic<bool> done_ = false;
    std::thread player_;
};
