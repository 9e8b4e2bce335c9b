// The process-wide logger: levelled lines to a file, to syslog or to standard error.
//
// Every line opens, writes and closes the log file, so a file that was moved away or deleted is
// made anew by the next line, and no descriptor is held between lines.
//
// The settings may be changed while other threads log.
#pragma once

#include <cstddef>

// The level grows with importance, and a line is written when level + log level >= 5: VERBOSE,
// which carries the main operational messages, shows at every log level from 0 up, DEBUG from 5 up.
enum : int {
    LEVEL_DEBUG = 0,
    LEVEL_EVENT = 1,
    LEVEL_NOTICE = 2,
    LEVEL_WARNING = 3,
    LEVEL_ERROR = 4,
    LEVEL_VERBOSE = 5,
};

// Sets all four settings of the logger; may be called again at any time.
//   file         path of the log file, cut at 1023 characters; empty or null: standard error
//   start_level  the log level; above 5 lets everything through, below 0 nothing
//   do_syslog    non-zero: every line goes to syslog as "quillet", facility daemon
//   disable_log  1: nothing is written at all
// Returns 0.
int logger_init(const char *file, int start_level, int do_syslog, int disable_log) noexcept;

// While the process has root's rights and one thread: log files are opened with the rights of an account,
// and are that account's from their first line on. One that the account cannot make is made for it
// below /var/log alone, in a directory where nobody but root can change names; what has its name
// already is left alone. With NOBODY for both, files are opened with the rights of the process again.
constexpr unsigned NOBODY = static_cast<unsigned>(-1);
void logger_own_files(unsigned uid, unsigned gid) noexcept;

// Whether control characters other than TAB come as "\xNN", so that every line is one line and none can
// change a terminal; a line end behind the text is left out then. Not so at first.
void logger_escape(bool escapes) noexcept;

// Sets the log level alone.
void set_log_level(int level) noexcept;

// Writes one line; use LOG() instead of calling this directly.
//   level           LEVEL_DEBUG to LEVEL_VERBOSE
//   file, line,
//   function        the caller's place; VERBOSE lines do not show it
//   fmt, ...        printf format and arguments
// Prefix and text together are cut at 1023 characters; a newline is always added. A log file that
// cannot be opened sends the line to standard error; errors of writing are ignored. A FIFO or terminal
// that takes nothing for a second loses the line.
void write_log(int level, const char *file, int line, const char *function, const char *fmt,
               ...) noexcept __attribute__((format(printf, 5, 6)));

// A byte as log lines show it, widened from a signed char: 0x80 prints as ffffff80.
constexpr unsigned shown_byte(char byte) noexcept {
    return static_cast<unsigned>(static_cast<signed char>(byte));
}

// The stem of a source path ("src/conf.cc" gives "conf"), which is how log lines name a module.
template <size_t N>
struct file_stem_t {
    char text[N] = {};

    consteval explicit file_stem_t(const char (&path)[N]) noexcept {
        size_t out = 0;
        bool in_extension = false;
        for (size_t i = 0; i < N - 1; i++) {
            if (path[i] == '/') {
                out = 0;
                in_extension = false;
                continue;
            }
            in_extension = in_extension || path[i] == '.';
            if (!in_extension) {
                text[out++] = path[i];
            }
        }
        for (; out < N; out++) {
            text[out] = '\0';
        }
    }
};

// Logs on behalf of the named function of the named module.
#define LOG_FROM(level, module, function, ...) \
    write_log(level, module, __LINE__, function, __VA_ARGS__)

// Logs on behalf of the named function.
#define LOG_AS(level, function, ...)                                  \
    do {                                                              \
        static constexpr file_stem_t stem{__FILE__};                  \
        write_log(level, stem.text, __LINE__, function, __VA_ARGS__); \
    } while (0)

// Logs from here.
#define LOG(level, ...) LOG_AS(level, __func__, __VA_ARGS__)
