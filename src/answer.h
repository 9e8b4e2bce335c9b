// The answer to a packet.
#pragma once

#include <cstdint>

#include "action.h"
#include "station.h"
#include "tables.h"

// When a message was received, and the answer that its packet is still waiting for, if any.
class owed_answer_t {
  public:
    // received_us  by clock.h's monotonic clock
    owed_answer_t(int sock, bool is_owed, int64_t received_us) noexcept
        : sock_(sock), is_owed_(is_owed), received_us_(received_us) {}

    // The same on a line that follows the procedure: its station knows the words.
    owed_answer_t(int sock, station_t *station, int64_t received_us) noexcept
        : owed_answer_t(sock, true, received_us) {
        station_ = station;
    }

    int64_t received_us() const noexcept { return received_us_; }

    // Sends ACK or NAK, unless nothing is owed any more.
    void give(verdict_t verdict) noexcept;

    // Answers before the rule's action where its end does not matter: a packet waits for its call file to
    // be complete, and where the rule wants it for its command to succeed.
    void give_before(const rule_t &rule) noexcept;

    // Answers by what the action came to.
    void give_for(const rule_t &rule, const outcome_t &outcome) noexcept;

  private:
    int sock_;
    bool is_owed_;
    int64_t received_us_;
    station_t *station_ = nullptr;
};
