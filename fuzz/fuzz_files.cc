// Any suppression file, and any status file and call description under any name. The spool
// directory is in memory. An input is the end of the status file's name, the content of the
// suppression file, of the call description (when empty, there is none) and of the status file,
// separated by zero bytes.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <map>

#include "action.h"
#include "alarm.h"
#include "alarm_limit.h"
#include "fuzz.h"
#include "proto.h"
#include "text.h"

namespace {

constexpr std::string_view SPOOL = "/in/memory";

using spool_t = std::map<std::string, std::string>;
spool_t spool;
std::string sent;

// The file that a path leads to.
spool_t::iterator find_file(std::string_view path) {
    return path.starts_with(SPOOL) ? spool.find(std::string(path.substr(SPOOL.size() + 1)))
                                   : spool.end();
}

// A file without a name, open at its beginning.
int file_with(const std::string &content) {
    const int file = memfd_create("content", MFD_CLOEXEC);
    require(write(file, content.data(), content.size()) == std::ssize(content));
    require(lseek(file, 0, SEEK_SET) == 0);
    return file;
}

// An open spool directory: the name that was read last.
std::string last_name;

DIR *spool_directory() {
    return reinterpret_cast<DIR *>(&last_name);
}

}  // namespace

extern "C" {

int open(const char *path, int flags, ...) {
    static const auto real = in_libc(&open, "open");
    if (!std::string_view(path).starts_with(SPOOL)) {
        va_list arguments;
        va_start(arguments, flags);
        const int mode = va_arg(arguments, int);
        va_end(arguments);
        return real(path, flags, mode);
    }
    const auto file = find_file(path);
    return file != spool.end() ? file_with(file->second) : -1;
}

int unlink(const char *path) {
    static const auto real = in_libc(&unlink, "unlink");
    if (!std::string_view(path).starts_with(SPOOL)) {
        return real(path);
    }
    const auto file = find_file(path);
    if (file == spool.end()) {
        errno = ENOENT;
        return -1;
    }
    spool.erase(file);
    return 0;
}

DIR *opendir(const char *path) {
    static const auto real = in_libc(&opendir, "opendir");
    last_name.clear();
    return path == SPOOL ? spool_directory() : real(path);
}

dirent *readdir(DIR *directory) {
    static const auto real = in_libc(&readdir, "readdir");
    static dirent entry;
    if (directory != spool_directory()) {
        return real(directory);
    }
    const auto file = spool.upper_bound(last_name);
    if (file == spool.end()) {
        return nullptr;
    }
    last_name = file->first;
    copy_text(entry.d_name, last_name);
    return &entry;
}

int closedir(DIR *directory) {
    static const auto real = in_libc(&closedir, "closedir");
    return directory == spool_directory() ? 0 : real(directory);
}

ssize_t send(int /*file*/, const void *bytes, size_t size, int /*flags*/) {
    sent.append(static_cast<const char *>(bytes), size);
    return static_cast<ssize_t>(size);
}
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t MAX_NAME = 200;
    constexpr std::string_view OPENING = "\x04\x31\x05\x32\x05\x01\x32\x02\x31\x1F";
    quiet_log();
    const std::string text = stretched(as_text(data, size));
    std::string_view rest = text;
    const std::string name = next_piece(&rest).substr(0, MAX_NAME);
    const std::string suppression = next_piece(&rest);
    const std::string call = next_piece(&rest);
    if (name.find('/') != std::string::npos) {
        return 0;
    }
    spool = {{"connected", suppression}, {"status_" + name, std::string(rest)}};
    if (!call.empty()) {
        spool["call_" + name] = call;
    }
    sent.clear();

    static pager_t pager;
    pager = {};
    copy_text(pager.spool_dir, SPOOL);
    const int level = alarm_time(&pager, ALARM_CONNECTION_LOST);
    require(level == alarm_slot(&pager, ALARM_CONNECTION_LOST).index[0]);
    process_status_feedbacks(&pager);
    require(spool.count("status_" + name) == 0);
    require(call.empty() ? sent.empty() : sent.starts_with(OPENING) && sent.back() == ETX);
    return 0;
}
