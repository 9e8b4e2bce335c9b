#include "instance.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t MAX_NAME_LENGTH = 64;
constexpr std::string_view CONFIG_DIR = "/etc/quillet/";
constexpr std::string_view CONFIG_SUFFIX = ".conf";
// The status file of the daemon without a name, and the usual staging directory.
constexpr std::array<std::string_view, 2> TAKEN_NAMES = {"status", "staging"};

struct own_text_t {
    std::string_view key;
    std::string_view before;
    std::string_view behind;
    std::string text;
};

std::string name_set;
std::array<own_text_t, 4> own_texts = {{
    {"log_file", "/var/log/quillet/", ".log", ""},
    {"journal_file", "/var/log/quillet/", ".journal", ""},
    {"status_file", "/run/vesperd/", ".prom", ""},
    {"spool_dir", "/var/spool/quillet/", "", ""},
}};

bool can_be_in_name(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == ':';
}

}  // namespace

bool is_instance_name(std::string_view name) noexcept {
    return !name.empty() && name.size() <= MAX_NAME_LENGTH && name[0] != '.' &&
           std::all_of(name.begin(), name.end(), can_be_in_name) &&
           std::find(TAKEN_NAMES.begin(), TAKEN_NAMES.end(), name) == TAKEN_NAMES.end();
}

void set_instance(std::string_view name) {
    name_set = name;
    for (own_text_t &own : own_texts) {
        own.text = std::string(own.before) + name_set + std::string(own.behind);
    }
}

const std::string &instance() noexcept {
    return name_set;
}

std::string config_path_of(std::string_view name) {
    return name.empty() ? "/etc/quillet.conf"
                        : std::string(CONFIG_DIR) + std::string(name) + std::string(CONFIG_SUFFIX);
}

std::string instance_of_config(std::string_view path) {
    if (!path.starts_with(CONFIG_DIR) || !path.ends_with(CONFIG_SUFFIX) ||
        path.size() < CONFIG_DIR.size() + CONFIG_SUFFIX.size()) {
        return "";
    }
    path.remove_prefix(CONFIG_DIR.size());
    path.remove_suffix(CONFIG_SUFFIX.size());
    return is_instance_name(path) ? std::string(path) : "";
}

std::string process_name() {
    return name_set.empty() ? "vesperd" : "vesperd-" + name_set;
}

const char *absent_text(const config_key_t &key) noexcept {
    if (!name_set.empty()) {
        for (const own_text_t &own : own_texts) {
            if (own.key == key.name) {
                return own.text.c_str();
            }
        }
    }
    return key.text;
}
