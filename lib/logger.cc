#include "logger.h"

#include <fcntl.h>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "fd.h"
#include "text.h"

namespace {

constexpr int MESSAGE_SIZE = 1024;
constexpr int TIME_SIZE = 32;
constexpr int THRESHOLD = 5;
constexpr std::chrono::seconds SYSLOG_PATIENCE(1);

constexpr std::array<const char *, 6> levels = {"DEBUG",   "EVENT", "NOTICE",
                                                "WARNING", "ERROR", "VERBOSE"};
constexpr std::array<int, 7> syslog_level_map = {LOG_DEBUG, LOG_INFO,  LOG_NOTICE, LOG_WARNING,
                                                 LOG_ERR,   LOG_DEBUG, LOG_DEBUG};

// Read by every thread while a reload may be setting them.
std::atomic<int> log_level = 1;
std::atomic<int> log_to_syslog = 0;
std::atomic<int> dont_log = 0;
char logfile[1024];

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

// Month/day/year and time of day in local time, as strftime's "%D %T" gives them; strftime itself
// would look for a changed time zone file with every line.
void format_time(char (&text)[TIME_SIZE]) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    snprintf(text, sizeof text, "%02d/%02d/%02d %02d:%02d:%02d", local.tm_mon + 1, local.tm_mday,
             local.tm_year % 100, local.tm_hour, local.tm_min, local.tm_sec);
}

// One write per line keeps the lines of different threads whole.
void write_line(const char *message) {
    char when[TIME_SIZE];
    char line[TIME_SIZE + MESSAGE_SIZE + 4];
    format_time(when);
    const int length = snprintf(line, sizeof line, "%s: %s\n", when, message);
    unique_fd_t file;
    if (logfile[0] != '\0') {
        file.reset(open(logfile, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    }
    const int target = file ? file.get() : STDERR_FILENO;
    if (write(target, line, static_cast<size_t>(length)) < 0) {
        return;  // nowhere left to report it
    }
}

// closelog() forgets the name for every thread, so a record must not come between. A fault signal
// that logs while its own thread is in here goes on without the lock.
void write_syslog(int level, const char *message) {
    static std::timed_mutex mutex;
    const std::unique_lock lock(mutex, SYSLOG_PATIENCE);
    openlog("quillet", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    syslog(syslog_level_map.at(static_cast<size_t>(level)), "%s", message);
    closelog();
}

}  // namespace

int logger_init(const char *file, int start_level, int do_syslog, int disable_log) noexcept {
    copy_text(logfile, file != nullptr ? file : "");
    dont_log = disable_log;
    log_level = start_level;
    log_to_syslog = do_syslog;
    return 0;
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
    char message[MESSAGE_SIZE] = "";
    const char *name = levels[static_cast<size_t>(level)];
    const long pid = current_process_id();
    int used = level == LEVEL_VERBOSE
                   ? snprintf(message, sizeof message, " %s[%ld]: ", name, pid)
                   : snprintf(message, sizeof message, " %s[%ld]: %s:%d in %s: ", name, pid, file,
                              line, function);
    used = std::min(used, MESSAGE_SIZE - 1);

    va_list arguments;
    va_start(arguments, fmt);
    vsnprintf(message + used, static_cast<size_t>(MESSAGE_SIZE - used), fmt, arguments);
    va_end(arguments);

    if (log_to_syslog != 0) {
        write_syslog(level, message);
    } else {
        write_line(message);
    }
}
