// A configuration as the daemon would have it: the sections of the file beside the records that the
// daemon's own loader made of them.
#pragma once

#include <string>
#include <vector>

#include "hosts.h"
#include "outline.h"
#include "tables.h"

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

// The hosts for which the loader looks, if none of them is found: those of its pagers, each once.
std::vector<std::string> hosts_of(const outline_t &outline);

// The configurations of this machine's other daemons: /etc/quillet.conf and those of instances, when
// `path` is one of them, else none.
std::vector<std::string> configurations_beside(const std::string &path);

// Reads and loads the file into the tables, without writing anything anywhere. The tables must be
// zero.
//   ask  ask_hosts, or take_hosts; each name once
// Returns 0, or -1 with errno set as read_configuration() does.
int load_site(const char *path, host_asker_t ask, site_t *site, findings_t *findings);

// The same for the content of the file.
void load_site_text(const char *path, std::string_view text, host_asker_t ask, site_t *site,
                    findings_t *findings);
