// What the compilation of a regular expression takes.
//
// The C library writes repetitions out: "+" doubles its piece, an optional repetition costs up to the
// square of its bound, and places such as "\b" multiply with the branches and repetitions around them. "x{0,32767}" or thirty "+" in a row ask for more memory than the machine has, and
// "(|\b)?{0,7}*b?" for more time than anybody has.
#pragma once

#include <cstddef>
#include <cstdint>

struct regex_cost_t {
    int error;      // that regcomp() would return; REG_ESPACE also for a text that takes too much
    bool is_final;  // false: it was not tried, or could not be for want of processes
    size_t bytes;   // that the compilation keeps, about
    int64_t us;     // of CPU time that the trial took; 0 when there was none
};

// The most that `us` can be.
constexpr int64_t MAX_TRIAL_US = 2'000'000;

// What regcomp() takes for `text` (POSIX extended syntax). What is not plainly harmless is tried in a
// child process, which can have 256 MB and MAX_TRIAL_US of CPU time.
//   can_try  whether that may be done
regex_cost_t regex_cost(const char *text, bool can_try) noexcept;
