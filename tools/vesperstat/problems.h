// What is wrong with a daemon and its lines, by its status file.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "status_file.h"

// How bad something is. A notice is worth a look, but no reason to call somebody; a failure goes before
// what is not known.
enum class level_t { OK, NOTICE, WARNING, UNKNOWN, CRITICAL };
constexpr std::array<const char *, 5> LEVELS = {"ok", "notice", "warning", "unknown", "critical"};

struct limits_t {
    double down = 60;    // seconds without connection, in one packet or in one action
    double silence = 0;  // seconds without a message; 0: any time
    double age = 60;     // of the file of a daemon that runs: it writes one every 15 seconds
};

struct problem_t {
    level_t level = level_t::OK;
    std::string_view
        kind;  // "gone", "stopped", "load", "down", "packet", "action", "fell_back", "silent",
               // "unanswered", "mute", "closed", "noise", "address", "check"
    std::string line;    // whose problem it is; empty: the daemon's
    double seconds = 0;  // for how long; 0 when that is not known
    std::string words;   // "no connection for 5 min"
};

// Problems of a status at the time `now`, the worst first. Of a daemon that does not run, nothing
// is said about its lines.
std::vector<problem_t> judge(const status_t &status, const limits_t &limits, double now);

// The worst level of those problems that belong to `line`, or of all with a null pointer.
level_t worst_level(const std::vector<problem_t> &problems, const std::string *line = nullptr);

// Whether the daemon runs and one of its lines at least is not critical.
bool has_working_line(const status_t &status, std::vector<problem_t> problems);

// Whether the daemon runs and its file tells how its lines are: no problem is its own, but
// for a load that failed.
bool is_running(const std::vector<problem_t> &problems) noexcept;

// "45 s", "12 min", "3 h", "5 d".
std::string duration_words(double seconds);
