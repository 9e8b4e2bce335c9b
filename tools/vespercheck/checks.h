// The checks of a configuration, one for each concern. Each adds what it finds.
#pragma once

#include "findings.h"
#include "site.h"

// All of them.
void check_site(const site_t &site, findings_t *findings);

// Keys that nobody reads, and values that are not what their key reads.
void check_keys(const site_t &site, findings_t *findings);

// Hosts that are not found, lines that share a converter or a port, character sets, spool directories that
// were left as they are, sections behind a full table.
void check_lines(const site_t &site, findings_t *findings);

// Log levels that write more than the disk has room for.
void check_log_level(const site_t &site, findings_t *findings);

// Lines that another daemon of this machine serves too.
void check_neighbours(const site_t &site, findings_t *findings);

// Rule lists and default rules, and the rules that neither reaches.
void check_rules(const site_t &site, findings_t *findings);

// What is followed in vain, and what becomes of messages that nobody answers.
void check_following(const site_t &site, findings_t *findings);

// Patterns of rules and values.
void check_patterns(const site_t &site, findings_t *findings);

// Placeholders, and the quoting of commands.
void check_templates(const site_t &site, findings_t *findings);

// Whether the daemon's account can use the files and directories, and others the log and the
// journal. Without the privilege to tell, finds nothing.
void check_files(const site_t &site, findings_t *findings);

// Why check_files() cannot tell; empty when it can.
std::string why_files_are_not_judged();

// Why the daemon's account, or whoever this runs as where nobody can tell, cannot open the
// configuration; empty when it can.
std::string why_not_loadable(const char *path);

// A path as the daemon takes it, which works in "/", and the directory that a file is in.
std::string from_root(const std::string &path);
std::string directory_of(const std::string &path);
