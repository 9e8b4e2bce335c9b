#include "sources.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <string_view>

#include "files.h"

namespace {

constexpr std::string_view EXTENSION = ".prom";
constexpr std::string_view PLAIN = "status";  // of the daemon without a name
constexpr std::string_view UNIT_PREFIX = "vesperd@";
constexpr std::string_view UNIT_SUFFIX = ".service";

constexpr size_t MAX_NAME_LENGTH = 64;  // as for instances

using names_t = std::set<std::string>;

bool is_directory(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The names that a directory's files have between `prefix` and `suffix`.
names_t names_between(const std::string &directory, std::string_view prefix,
                      std::string_view suffix) {
    names_t names;
    for (const std::string &name : names_in(directory)) {
        if (name.size() > prefix.size() + suffix.size() && name.starts_with(prefix) &&
            name.ends_with(suffix)) {
            names.insert(name.substr(prefix.size(), name.size() - prefix.size() - suffix.size()));
        }
    }
    return names;
}

}  // namespace

sources_t find_status_files(const std::string &status_dir, const std::string &wants_dir) {
    const auto path_of = [&](std::string_view name) {
        return status_dir + "/" + std::string(name) + std::string(EXTENSION);
    };
    sources_t sources;
    names_t names = names_between(wants_dir, UNIT_PREFIX, UNIT_SUFFIX);
    names_t found = names_between(status_dir, "", EXTENSION);
    const bool is_plain = found.erase(std::string(PLAIN)) > 0 && !is_directory(path_of(PLAIN));
    for (const std::string &name : found) {
        if (names.contains(name) || is_directory(path_of(name))) {
            continue;
        }
        if (name.size() <= MAX_NAME_LENGTH && names.size() < MAX_STATUS_FILES) {
            names.insert(name);
        } else {
            sources.passed_over++;
        }
    }
    if (is_plain || names.empty()) {
        sources.files.push_back(path_of(PLAIN));
    }
    std::transform(names.begin(), names.end(), std::back_inserter(sources.files), path_of);
    return sources;
}

std::vector<std::string> instance_names(const std::vector<std::string> &files) {
    if (files.size() == 1) {
        return {""};
    }
    std::vector<std::string> names;
    for (const std::string &file : files) {
        names.push_back(std::filesystem::path(file).stem());
    }
    return std::set(names.begin(), names.end()).size() == names.size() ? names : files;
}
