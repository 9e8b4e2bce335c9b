#include "logger.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include "fd.h"
#include "kept_text.h"
#include "printable.h"
#include "rights.h"

namespace {

constexpr size_t MESSAGE_SIZE = 1024;
constexpr size_t TIME_SIZE = 32;
constexpr size_t MAX_PATH_LENGTH = 1023;
constexpr int THRESHOLD = 5;
constexpr std::chrono::seconds SYSLOG_PATIENCE(1);
constexpr int WRITE_PATIENCE_MS = 1000;
constexpr std::string_view LOG_DIR = "/var/log";  // where root makes a file for its owner

constexpr std::array<std::string_view, 6> levels = {"DEBUG",   "EVENT", "NOTICE",
                                                    "WARNING", "ERROR", "VERBOSE"};
constexpr std::array<int, 7> syslog_level_map = {LOG_DEBUG, LOG_INFO,  LOG_NOTICE, LOG_WARNING,
                                                 LOG_ERR,   LOG_DEBUG, LOG_DEBUG};

// Read by every thread while a reload may be setting them.
std::atomic<int> log_level = 1;
std::atomic<int> log_to_syslog = 0;
std::atomic<int> dont_log = 0;
std::atomic<bool> escapes = false;
std::atomic<const char *> logfile = "";

struct owner_t {
    uid_t uid = NOBODY;
    gid_t gid = NOBODY;
} owner;

// Asking the kernel for it would make four system calls of the three that a line takes.
std::atomic<long> process_id = 0;

void forget_process_id() {
    process_id = 0;
}

long current_process_id() {
    long id = process_id;
    if (id == 0) {
        static const int registered = pthread_atfork(nullptr, nullptr, forget_process_id);
        static_cast<void>(registered);
        id = getpid();
        process_id = id;
    }
    return id;
}

// Month/day/year and time of day in local time, as strftime's "%D %T" gives them, a colon and a
// blank. Most lines come in the same second as the one before; strftime itself would look for a
// changed time zone file.
std::string_view time_stamp() {
    thread_local time_t second = -1;
    thread_local char text[TIME_SIZE];
    thread_local size_t length = 0;
    const time_t now = time(nullptr);
    if (now != second) {
        tm local{};
        localtime_r(&now, &local);
        const int wanted =
            snprintf(text, sizeof text, "%02d/%02d/%02d %02d:%02d:%02d: ", local.tm_mon + 1,
                     local.tm_mday, local.tm_year % 100, local.tm_hour, local.tm_min, local.tm_sec);
        length = std::min(static_cast<size_t>(std::max(wanted, 0)), sizeof text - 1);
        second = now;
    }
    return {text, length};
}

// A line in the making: the time stamp, and the message of at most MESSAGE_SIZE - 1 characters,
// which can be read on its own until the line is ended.
class log_line_t {
  public:
    explicit log_line_t(std::string_view stamp) : length_(stamp.size()), message_(stamp.size()) {
        memcpy(text_, stamp.data(), stamp.size());
    }

    log_line_t &operator<<(std::string_view text) {
        const size_t count = std::min(text.size(), left());
        memcpy(text_ + length_, text.data(), count);
        length_ += count;
        return *this;
    }
    log_line_t &operator<<(long number) {
        char digits[24];
        const auto [end, error] = std::to_chars(digits, digits + sizeof digits, number);
        return *this << std::string_view(digits, static_cast<size_t>(end - digits));
    }
    __attribute__((format(printf, 2, 0))) void format(const char *fmt, va_list arguments) {
        const int wanted = vsnprintf(text_ + length_, left() + 1, fmt, arguments);
        length_ += std::min(static_cast<size_t>(std::max(wanted, 0)), left());
    }

    const char *message() {
        text_[length_] = '\0';
        return text_ + message_;
    }
    std::string_view ended() {
        text_[length_] = '\n';
        return {text_, length_ + 1};
    }

  private:
    size_t left() const { return message_ + MESSAGE_SIZE - 1 - length_; }

    size_t length_;
    size_t message_;
    char text_[TIME_SIZE + MESSAGE_SIZE + 1];
};

// Without waiting for whatever the path leads to.
constexpr int LOG_FLAGS = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr mode_t LOG_MODE = 0666;

bool is_roots_alone(const unique_fd_t &directory) {
    struct stat status {};
    return directory && fstat(directory.get(), &status) == 0 && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens the directory of a path below LOG_DIR, step by step. None where a step is a link, or where
// somebody else than root can change names.
unique_fd_t open_roots_directory(std::string_view path, std::string *name) {
    constexpr int FLAGS = O_PATH | O_DIRECTORY | O_CLOEXEC;
    if (!path.starts_with(LOG_DIR) || !path.substr(LOG_DIR.size()).starts_with('/')) {
        return unique_fd_t();
    }
    unique_fd_t directory(open(std::string(LOG_DIR).c_str(), FLAGS));
    path.remove_prefix(LOG_DIR.size() + 1);
    for (size_t end = path.find('/'); end != std::string_view::npos && is_roots_alone(directory);
         end = path.find('/')) {
        const std::string step(path.substr(0, end));
        path.remove_prefix(end + 1);
        directory.reset(step == ".." ? -1
                                     : openat(directory.get(), step.c_str(), FLAGS | O_NOFOLLOW));
    }
    *name = path;
    return is_roots_alone(directory) ? std::move(directory) : unique_fd_t();
}

// The new file is its owner's before anything is in it.
int make_log_file(const char *path) {
    std::string name;
    const unique_fd_t directory = open_roots_directory(path, &name);
    const int file =
        directory ? openat(directory.get(), name.c_str(), LOG_FLAGS | O_EXCL | O_NOFOLLOW, LOG_MODE)
                  : -1;
    if (file >= 0) {
        const int given = fchown(file, owner.uid, owner.gid);
        static_cast<void>(given);  // on a file system without owners it does not matter
    }
    return file;
}

// Whoever has the account can have put anything there, and can have chosen the path.
int open_for_owner(const char *path) {
    {
        const rights_t of_owner(owner.uid, owner.gid);
        const int file = of_owner.are_taken() ? open(path, LOG_FLAGS, LOG_MODE) : -1;
        if (file >= 0) {
            return file;
        }
    }
    return make_log_file(path);
}

int open_log_file(const char *path) {
    return owner.uid == NOBODY ? open(path, LOG_FLAGS, LOG_MODE) : open_for_owner(path);
}

// One write per line keeps the lines of different threads whole.
void write_line(std::string_view line) {
    const char *path = logfile;
    const unique_fd_t file(path[0] != '\0' ? open_log_file(path) : -1);
    const int target = file ? file.get() : STDERR_FILENO;
    ssize_t written = write(target, line.data(), line.size());
    pollfd waiting{target, POLLOUT, 0};
    if (written < 0 && errno == EAGAIN && poll(&waiting, 1, WRITE_PATIENCE_MS) > 0) {
        written = write(target, line.data(), line.size());
    }
    static_cast<void>(written);  // nowhere left to report it
}

// closelog() forgets the name for every thread, so a record must not come between. A fault signal
// that logs while its own thread is in here goes on without the lock.
void write_syslog(int level, const char *message) {
    static std::timed_mutex mutex;
    const std::unique_lock lock(mutex, std::chrono::system_clock::now() + SYSLOG_PATIENCE);
    openlog("quillet", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    syslog(syslog_level_map.at(static_cast<size_t>(level)), "%s", message);
    closelog();
}

// The line ends by itself, so an end that the format has is none of the text.
void append_escaped(log_line_t *line, std::string_view fmt, std::string_view text) {
    if (fmt.ends_with('\n') && text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    escape_controls(text, [line](std::string_view piece) { *line << piece; });
}

}  // namespace

int logger_init(const char *file, int start_level, int do_syslog, int disable_log) noexcept {
    logfile = kept_text(std::string_view(file != nullptr ? file : "").substr(0, MAX_PATH_LENGTH));
    dont_log = disable_log;
    log_level = start_level;
    log_to_syslog = do_syslog;
    return 0;
}

void logger_own_files(unsigned uid, unsigned gid) noexcept {
    owner = {uid, gid};
}

void logger_escape(bool does_escape) noexcept {
    escapes = does_escape;
}

void set_log_level(int level) noexcept {
    log_level = level;
}

void write_log(int level, const char *file, int line, const char *function, const char *fmt,
               ...) noexcept {
    if (level < LEVEL_DEBUG || level > LEVEL_VERBOSE || log_level < THRESHOLD - level ||
        dont_log == 1) {
        return;
    }
    log_line_t text(time_stamp());
    text << " " << levels[static_cast<size_t>(level)] << "[" << current_process_id() << "]: ";
    if (level != LEVEL_VERBOSE) {
        text << file << ":" << line << " in " << function << ": ";
    }
    va_list arguments;
    va_start(arguments, fmt);
    if (!escapes) {
        text.format(fmt, arguments);
    } else {
        char raw[MESSAGE_SIZE];
        const int wanted = vsnprintf(raw, sizeof raw, fmt, arguments);
        const int length = std::clamp(wanted, 0, static_cast<int>(sizeof raw) - 1);
        append_escaped(&text, fmt, {raw, static_cast<size_t>(length)});
    }
    va_end(arguments);

    if (log_to_syslog != 0) {
        write_syslog(level, text.message());
    } else {
        write_line(text.ended());
    }
}
