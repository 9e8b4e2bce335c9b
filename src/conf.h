// The configuration file: logger settings, pagers and rules.
//
// Loading is for one thread at a time and may run while service threads read the tables: records
// are prepared aside and stored at once, a slot that is loaded again is never emptied in between.
#pragma once

#include <iniparser.h>
#include <netdb.h>

#include <vector>

#include "ini.h"
#include "tables.h"

extern char *logfile;      // heap text
extern uint8_t logtype;    // 1 = syslog
extern uint16_t loglevel;  // what the logger lets through

// How a pager's host is found, once for every pager that is loaded: gethostbyname().
using host_finder_t = hostent *(*)(const char *name);
extern host_finder_t find_host;

// Reads the file at `path` into `pagers`, `num_pagers`, `rules`, `logfile`, `logtype` and
// `loglevel`, starts the logger with what it found, and sets the status file and the journal. The
// earlier `logfile` is not released: call free_confvals() first. Records go to the tables in file order; the slot behind the last one
// loaded is emptied, later ones keep what an earlier load put there. The 16th pager or the 256th
// rule ends the loading. Returns 0, or -1 when the file cannot be opened.
int load_conf(const char *path) noexcept;

// The parts of load_conf(), for programs that must not write where the file says. The settings are
// `logfile`, which must be null or heap text and is replaced, `logtype` and `loglevel`; the tables
// are `pagers`, `num_pagers` and `rules`.
void load_logger_settings(const dictionary *dict) noexcept;
void load_tables(const dictionary *dict) noexcept;

// Loads a pager section into `pager`. Texts that the section lacks stay as they are where they have
// no default; lock, thread, alarm levels, poll count and time of the last packet are never touched.
// Returns 0, or -1 after logging an ERROR when the host does not resolve; `pager` is then
// unchanged.
int load_pager(const dictionary *dict, const char *section, pager_t *pager) noexcept;

// Does the same but for finding the host: `pager`, which nobody else reads, has no address yet.
void load_pager_settings(const dictionary *dict, const char *section, pager_t *pager) noexcept;

// Loads a rule section into `rule`, replacing the whole record. Returns 0 always.
int load_rule(const dictionary *dict, const char *section, rule_t *rule) noexcept;

// A configuration file that was read and changes nothing yet: pagers without their addresses, in file order,
// and rules. There can be more of them than the tables hold: the sixteenth pager that is found ends a load.
struct read_conf_t {
    unique_dictionary_t dict = {};  // null: it could not be opened
    std::vector<pager_t> pagers = {};
    std::vector<rule_t> rules = {};
    std::vector<size_t> lines_before = {};  // how many pagers come before each rule
    bool is_whole = true;  // false: of two pagers of one name the second is left out
};

// Reads a file apart from the tables. Like a load, for one thread at a time.
read_conf_t read_conf(const char *path);

// Applies the logger's settings of a file: log, status file, journal, and whether later loads are live.
void apply_logger_settings(const dictionary *dict) noexcept;

// Sets the logger settings to their defaults: file, "/var/log/quillet.log", log level 5.
void init_defaults() noexcept;

// Releases `logfile` and leaves the pointer as it is.
void free_confvals() noexcept;
