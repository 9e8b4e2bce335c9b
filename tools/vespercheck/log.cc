#include <sys/stat.h>

#include <optional>

#include "checks.h"
#include "conf.h"

namespace {

constexpr int NOISY_LOG_LEVEL = 5;

// The file system that a file or directory is on; none when nothing is there.
std::optional<dev_t> file_system_of(const std::string &path) {
    struct stat status {};
    const bool is_there = stat(path.c_str(), &status) == 0;
    const bool is_stored = S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
    return is_there && is_stored ? std::optional(status.st_dev) : std::nullopt;
}

// The one that the log fills, if it is a file or is going to be one.
std::optional<dev_t> file_system_of_log() {
    const std::string path = from_root(logfile);
    struct stat status {};
    if (logtype == 1) {
        return std::nullopt;
    }
    return file_system_of(stat(path.c_str(), &status) == 0 ? path : directory_of(path));
}

// A directory for call files that a full log would leave without room.
struct at_risk_t {
    const file_section_t *section;
    const char *key;
};

std::optional<at_risk_t> find_at_risk(const site_t &site) {
    const std::optional<dev_t> log = file_system_of_log();
    if (!log) {
        return std::nullopt;
    }
    for (const site_line_t &line : site.lines) {
        for (const char *key : {"spool_dir", "staging_dir"}) {
            const std::string directory = line.section->text(key);
            if (!directory.empty() && file_system_of(from_root(directory)) == log) {
                return at_risk_t{line.section, key};
            }
        }
    }
    return std::nullopt;
}

}  // namespace

void check_log_level(const site_t &site, findings_t *findings) {
    const file_section_t &logger = site.outline.logger();
    const int level = logger.number(*find_key(section_kind_t::LOGGER, "log_level"));
    const bool is_noisy = level >= NOISY_LOG_LEVEL || level < 0;
    if (!is_noisy || site.lines.empty()) {
        return;
    }
    const int at = logger.line_of("log_level");
    const std::string what =
        text_of("log_level ", level, logger.find("log_level") == nullptr ? ", the default," : "",
                " writes 2 lines for every byte of a line");
    if (const std::optional<at_risk_t> risk = find_at_risk(site)) {
        findings->warn(at, "log-level", what,
                       ", 200 MB for 10 seconds of noise, on the file system of the ", risk->key,
                       " of [", risk->section->name,
                       "]: when it is full, no call file is written, of any line");
    } else {
        findings->note(at, "log-level", what);
    }
}
