// Where the daemons of this machine say how they are.
#pragma once

#include <string>
#include <vector>

// Where daemons keep their status files, and where the service manager lists the units of
// vesperd.target.
constexpr const char *STATUS_DIR = "/run/vesperd";
constexpr const char *WANTS_DIR = "/etc/systemd/system/vesperd.target.wants";

// More files are not looked for.
constexpr size_t MAX_STATUS_FILES = 256;

struct sources_t {
    std::vector<std::string> files;
    size_t passed_over = 0;  // files for which there is no room, or whose name no instance can have
};

// The status files of the daemon without a name and of all instances, in this order and that of
// their names: those that exist, those of enabled instances, and where there is none at all the
// first's. What is in the directory can be the account's: a directory there is no status file, and
// everything else is for who opens it to judge.
sources_t find_status_files(const std::string &status_dir = STATUS_DIR,
                            const std::string &wants_dir = WANTS_DIR);

// What tells the files apart: their names without directory and extension, if these differ; one file
// has no name.
std::vector<std::string> instance_names(const std::vector<std::string> &files);
