// The account of what the daemon made of numbered messages, kept by its operational log, which tells
// each message once.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

// Text of random length behind the message's number, with bytes that templates and patterns know.
std::string numbered_message(int number, std::mt19937 *random);

class account_t {
  public:
    // log  the daemon's log file, which is taken away in portions; the daemon makes it anew
    account_t(const std::string &log, int messages)
        : log_(log), seen_(static_cast<size_t>(messages)) {}

    // Counts what was logged since the last call.
    void count_portion();

    // How many of `count` numbers, from `first` on and `step` apart, were not seen.
    int missing(int first, int count, int step) const;
    int missing() const { return missing(0, static_cast<int>(seen_.size()), 1); }
    // How many numbers were seen more than once.
    int repeated() const;
    // Lines that turned from ESPA 4.4.4 to ASCII.
    int fallbacks() const { return fallbacks_; }

  private:
    void count_line(const std::string &line);

    std::string log_;
    std::vector<uint8_t> seen_;
    int fallbacks_ = 0;
};
