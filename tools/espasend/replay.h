// The paging station's side of a recording, sent once more.
#pragma once

#include <vector>

#include "recording.h"
#include "traced_line.h"

class replay_t : public traced_line_t {
  public:
    using traced_line_t::traced_line_t;

    // Sends what was sent, with the pauses that were between, and compares what is answered. An answer is
    // waited for before anything more is sent; one that was not recorded, or is missing, is another one.
    // Returns false when the line failed.
    bool run(const std::vector<exchange_t> &exchanges);

    int answers() const { return answers_; }      // that were recorded
    int different() const { return different_; }  // that were not what was recorded

  private:
    bool pass(int64_t microseconds);
    bool hear(std::string_view recorded);
    void tell(std::string_view recorded);

    int answers_ = 0;
    int different_ = 0;
};
