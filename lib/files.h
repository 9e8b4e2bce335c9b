// Owners of open files and directories, and the forming of paths.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "text.h"

// Longer paths are cut.
constexpr int PATH_SIZE = 1024;

struct file_closer_t {
    void operator()(FILE *file) const noexcept { fclose(file); }
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};
using unique_file_t = std::unique_ptr<FILE, file_closer_t>;
using unique_dir_t = std::unique_ptr<DIR, file_closer_t>;

// Forms "directory/name".
inline void join_path(char (&path)[PATH_SIZE], std::string_view directory,
                      std::string_view name) noexcept {
    path[0] = '\0';
    text_writer_t writer(path, PATH_SIZE);
    writer.append(directory);
    writer.append("/");
    writer.append(name);
}

// The names in a directory, in any order; none when it cannot be read.
inline std::vector<std::string> names_in(const std::string &directory) {
    const unique_dir_t opened(opendir(directory.c_str()));
    std::vector<std::string> names;
    while (const dirent *entry = opened ? readdir(opened.get()) : nullptr) {
        names.emplace_back(entry->d_name);
    }
    return names;
}
