#include "status_sources.h"

#include <filesystem>
#include <set>
#include <string_view>

#include "files.h"

namespace {

constexpr std::string_view EXTENSION = ".prom";
constexpr std::string_view PLAIN = "status";  // of the daemon without a name
constexpr std::string_view UNIT_PREFIX = "vesperd@";
constexpr std::string_view UNIT_SUFFIX = ".service";

}  // namespace

std::vector<std::string> find_status_files(const std::string &status_dir,
                                           const std::string &wants_dir) {
    std::set<std::string> found;
    for (const std::string &name : names_in(status_dir)) {
        if (name.ends_with(EXTENSION)) {
            found.insert(name.substr(0, name.size() - EXTENSION.size()));
        }
    }
    for (const std::string &name : names_in(wants_dir)) {
        if (name.starts_with(UNIT_PREFIX) && name.ends_with(UNIT_SUFFIX)) {
            found.insert(name.substr(UNIT_PREFIX.size(),
                                     name.size() - UNIT_PREFIX.size() - UNIT_SUFFIX.size()));
        }
    }
    std::vector<std::string> files;
    const auto add = [&](std::string_view name) {
        files.push_back(status_dir + "/" + std::string(name) + std::string(EXTENSION));
    };
    if (found.empty() || found.erase(std::string(PLAIN)) > 0) {
        add(PLAIN);
    }
    for (const std::string &name : found) {
        add(name);
    }
    return files;
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
