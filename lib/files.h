// Owners of open files and directories, the forming of paths, and the opening of files that somebody
// else may have put there.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fd.h"
#include "text.h"

// Longer paths are cut.
constexpr int PATH_SIZE = 1024;

struct file_closer_t {
    void operator()(FILE *file) const noexcept { fclose(file); }
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};
using unique_file_t = std::unique_ptr<FILE, file_closer_t>;
using unique_dir_t = std::unique_ptr<DIR, file_closer_t>;

// errno for what is neither a regular file nor a directory.
constexpr int NOT_REGULAR = EMEDIUMTYPE;

// Opens a regular file. Whatever has the name, a FIFO or a device included, the call does not wait for
// it and takes no terminal.
//   flags, mode  of open()
// Returns no descriptor when it cannot be opened or is something else, with errno set: EISDIR for a
// directory, else NOT_REGULAR.
unique_fd_t open_regular(const char *path, int flags, mode_t mode = 0) noexcept;

// The same for reading it as text; null instead of no descriptor.
//   flags  O_NOFOLLOW, or 0
unique_file_t open_text(const char *path, int flags = 0) noexcept;

// Reads a whole regular file of at most `limit` bytes to `text`. Returns 0, or -1 with errno set as
// above, EFBIG when the file is larger.
//   flags  O_NOFOLLOW, or 0
int read_whole(const char *path, int flags, size_t limit, std::string *text) noexcept;

// The same with a file that is open, whatever it is, from where it stands on.
int read_to_end(FILE *file, size_t limit, std::string *text) noexcept;

// What `error`, the errno of one of these calls, says of the file: "it is no regular file".
//   limit  of read_whole()
std::string file_fault(int error, size_t limit = 0);

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
