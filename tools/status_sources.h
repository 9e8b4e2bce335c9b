// Where the daemons of this machine say how they are.
#pragma once

#include <string>
#include <vector>

// Where daemons keep their status files, and where the service manager lists the units of
// vesperd.target.
constexpr const char *STATUS_DIR = "/run/vesperd";
constexpr const char *WANTS_DIR = "/etc/systemd/system/vesperd.target.wants";

// The status files of the daemon without a name and of all instances, in this order and that of their
// names: those that exist, those of enabled instances, and where there is none at all the first's.
std::vector<std::string> find_status_files(const std::string &status_dir = STATUS_DIR,
                                           const std::string &wants_dir = WANTS_DIR);

// What tells the files apart: their names without directory and extension, if these differ; one file
// has no name.
std::vector<std::string> instance_names(const std::vector<std::string> &files);
