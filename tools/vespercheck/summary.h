// What would be served with a configuration, from the tables that the daemon's loader has filled.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "outline.h"

struct rule_summary_t {
    std::string name;
    std::string action;  // "call", "script", "skip"

    bool operator==(const rule_summary_t &) const = default;
};

struct line_summary_t {
    std::string name;
    std::string host;
    std::string address;  // empty: nobody was asked
    int port;
    std::string protocol;               // "espa", "ascii"
    std::vector<rule_summary_t> rules;  // in the order of the list
    std::optional<rule_summary_t> default_rule;
    bool listens = false;  // the host connects to the port

    bool operator==(const line_summary_t &) const = default;
};

struct summary_t {
    std::vector<line_summary_t> lines;
    int num_rules;    // of the file, listed or not
    std::string log;  // "syslog", or the path of the file
    int log_level;
    std::string journal;  // paths; empty: none
    std::string status;

    bool operator==(const summary_t &) const = default;
};

const char *action_name(int action) noexcept;

// From `pagers`, `rules`, the logger settings and the section that these were loaded from.
summary_t summarize(const file_section_t &logger);

std::string summary_text(const summary_t &summary);
