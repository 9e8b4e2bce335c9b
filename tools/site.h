// A configuration as the daemon would have it: the sections of the file beside the records that the
// daemon's own loader made of them.
#pragma once

#include <string>
#include <vector>

#include "outline.h"
#include "tables.h"

// What the search for a pager's host came to.
struct host_t {
    std::string name;
    bool is_found;
    bool is_asked;       // false: nobody was asked for the address
    std::string reason;  // why it is not found
    double seconds;
};

struct site_line_t {
    const file_section_t *section;
    const pager_t *pager;  // null: left out
    host_t host;

    // Has what it takes to be served, once its host is found.
    bool is_complete() const { return !host.name.empty(); }
};

struct site_rule_t {
    const file_section_t *section;
    rule_t *rule;
};

struct site_t {
    std::string path;
    std::vector<std::string> neighbours;  // configurations of the other daemons on this machine
    outline_t outline;
    std::vector<site_line_t> lines;
    std::vector<site_rule_t> rules;
    std::vector<const file_section_t *> unread;  // behind the one that filled a table
    const file_section_t *last_read = nullptr;   // that one

    const file_section_t *section_of(const rule_t *rule) const;
    // "rule_fire (line 12)".
    std::string place_of(const rule_t *rule) const;
};

// The configurations of this machine's other daemons: /etc/quillet.conf and those of instances, when
// `path` is one of them, else none.
std::vector<std::string> configurations_beside(const std::string &path);

// Reads and loads the file into the tables, without writing anything anywhere. The tables must be
// zero.
//   asks_names  whether names of hosts are looked up, each once; numeric addresses always are found
// Returns 0, or -1 with errno set when the file cannot be opened.
int load_site(const char *path, bool asks_names, site_t *site, findings_t *findings);
