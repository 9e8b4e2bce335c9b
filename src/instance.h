// Instances: further daemons on one machine, each with a name, and with a configuration and files of
// its own. The daemon without a name is none.
#pragma once

#include <string>
#include <string_view>

#include "keys.h"

// The environment variable that makes a daemon an instance, as its service unit does.
constexpr const char *INSTANCE_VARIABLE = "VESPERD_INSTANCE";

// Whether a daemon can have this name: 1 to 64 letters, digits, "-", "_", "." and ":", but no "." at
// the beginning, and none of the names that stand for something else beside the instances' files.
bool is_instance_name(std::string_view name) noexcept;

// Makes this program, or what it says, an instance; the empty name ends that. Called before the
// configuration is loaded.
void set_instance(std::string_view name);
const std::string &instance() noexcept;

// "/etc/quillet.conf", or "/etc/quillet/NAME.conf" of an instance.
std::string config_path_of(std::string_view name);

// The name of the instance whose configuration this is; empty when it is nobody's.
std::string instance_of_config(std::string_view path);

// "vesperd", or "vesperd-NAME".
std::string process_name();

// What an absent text of the configuration stands for, null for none: that of the table, and for an
// instance its own
//   log_file      "/var/log/quillet/NAME.log"
//   journal_file  "/var/log/quillet/NAME.journal"
//   status_file   "/run/vesperd/NAME.prom"
//   spool_dir     "/var/spool/quillet/NAME"
// Lives until set_instance() is called again.
const char *absent_text(const config_key_t &key) noexcept;
