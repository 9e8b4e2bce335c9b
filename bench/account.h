// The account of what the daemon made of numbered messages, kept by its journal, which has an object
// for each message.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

// The number of a message, a check of what follows, and random bytes of random length: all bytes but
// those that end a text on a line of either protocol.
std::string numbered_message(int number, std::mt19937 *random);

class account_t {
  public:
    // journal, log  the daemon's files, which are taken away in portions; the daemon makes them anew
    account_t(const std::string &journal, const std::string &log, int messages)
        : journal_(journal), log_(log), seen_(static_cast<size_t>(messages)) {}

    // Counts what was written since the last call.
    void count_portion();

    // How many of `count` numbers, from `first` on and `step` apart, were not seen.
    int missing(int first, int count, int step) const;
    int missing() const { return missing(0, static_cast<int>(seen_.size()), 1); }
    // How many numbers were seen more than once.
    int repeated() const;
    // Messages whose text is not what was sent, and lines of the journal that are no JSON objects.
    int wrong() const { return wrong_; }
    // Lines that turned from ESPA 4.4.4 to ASCII.
    int fallbacks() const { return fallbacks_; }

  private:
    void count_object(const std::string &line);

    std::string journal_;
    std::string log_;
    std::vector<uint8_t> seen_;
    int wrong_ = 0;
    int fallbacks_ = 0;
};
