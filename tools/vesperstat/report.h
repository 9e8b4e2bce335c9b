// What all reports on status files have in common.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "problems.h"
#include "status_file.h"

// A status file and what is wrong in it. Of a file that could not be read, `problems` has one of kind
// "unreadable", level UNKNOWN, and `status` is empty.
struct report_t {
    std::string file;
    std::string instance;  // short name of the file where there are several, else empty
    status_t status;
    std::vector<problem_t> problems;
};

// Reads and judges a status file at the time `now`.
report_t make_report(status_files_t *files, const std::string &file, links_t links,
                     const limits_t &limits, double now);

// The report on files of a directory that were passed over, of kind "too_many", level UNKNOWN.
report_t report_passed_over(const std::string &directory, size_t count);

// Turns what is critical into warnings when a line of any of the reports works.
void soften_while_a_line_works(std::vector<report_t> *reports);

// The worst level of all reports.
level_t worst_level(const std::vector<report_t> &reports);

// All problems, the worst first, each with the name of what has it: "ward3: no connection for 5 min".
struct sentence_t {
    level_t level;
    std::string text;
};
std::vector<sentence_t> make_sentences(const std::vector<report_t> &reports);

// "2 lines, vesperd 1.1.0 runs for 4 d", or "5 lines of 2 daemons".
std::string make_summary(const std::vector<report_t> &reports, double now);
