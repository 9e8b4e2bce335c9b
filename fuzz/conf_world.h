// Configurations from memory, for the targets that load them: the file, the resolver, the log file and
// syslog are the target's own. For one source file of a program.
#pragma once

#include <netdb.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "fuzz.h"
#include "tables.h"

namespace {

constexpr const char *PATH = "/in/memory";
constexpr int LOG_FILE = 1000;
constexpr int MAX_REPETITIONS = 3;
constexpr size_t LONG_LINE = 100;

std::string configuration;

// Three repetitions a line and none in a long one, no interval and no back-reference: more takes
// the C library exponential time, or memory that is kept. Operators are trusted with that, the
// fuzzer is not.
std::string tamed(std::string_view text) {
    std::string tame = stretched(text);
    int repetitions_left = 0;
    for (size_t i = 0; i < tame.size(); i++) {
        if (i == 0 || tame[i - 1] == '\n') {
            const bool is_long = std::min(tame.find('\n', i), tame.size()) - i > LONG_LINE;
            repetitions_left = is_long ? 0 : MAX_REPETITIONS;
        }
        const bool is_repetition = tame[i] == '*' || tame[i] == '+' || tame[i] == '?';
        const bool refers_back = i > 0 && tame[i - 1] == '\\' && isdigit(tame[i]) != 0;
        if (tame[i] == '{' || refers_back || (is_repetition && repetitions_left == 0)) {
            tame[i] = 'x';
        } else if (is_repetition) {
            repetitions_left--;
        }
    }
    return tame;
}

alignas(rule_t) char staged_rules[sizeof rules];

}  // namespace

extern "C" {

FILE *fopen(const char *path, const char *mode) {
    if (strcmp(path, PATH) == 0) {
        return fmemopen(configuration.data(), configuration.size(), mode);
    }
    static const auto real = in_libc(&fopen, "fopen");
    return real(path, mode);
}

int open(const char * /*path*/, int /*flags*/, ...) {
    return LOG_FILE;
}

ssize_t write(int file, const void *bytes, size_t size) {
    const bool is_log = file == LOG_FILE || file == STDERR_FILENO;
    return is_log ? static_cast<ssize_t>(size) : syscall(SYS_write, file, bytes, size);
}

int close(int file) {
    return file == LOG_FILE ? 0 : static_cast<int>(syscall(SYS_close, file));
}

void openlog(const char * /*name*/, int /*option*/, int /*facility*/) {}
void syslog(int /*priority*/, const char * /*format*/, ...) {}
void closelog() {}

// Names that end in a digit have an address, those in ':' one of another family.
hostent *gethostbyname(const char *name) {
    static in_addr address{htonl(INADDR_LOOPBACK)};
    static char *addresses[] = {reinterpret_cast<char *>(&address), nullptr};
    static hostent host{nullptr, nullptr, AF_INET, sizeof address, addresses};
    const char last = name[0] != '\0' ? name[strlen(name) - 1] : '\0';
    host.h_addrtype = last == ':' ? AF_INET6 : AF_INET;
    return last == ':' || isdigit(last) != 0 ? &host : nullptr;
}

// The operators new and delete of everything linked here. A load stages its rules in two megabytes,
// and to mark a fresh block of that size takes the sanitizer ten times as long as the load itself.
void *__real__Znwm(size_t size);
void __real__ZdlPv(void *block);

void *__wrap__Znwm(size_t size) {
    return size == sizeof staged_rules ? staged_rules : __real__Znwm(size);
}

void __wrap__ZdlPv(void *block) {
    if (block != staged_rules) {
        __real__ZdlPv(block);
    }
}

void __wrap__ZdlPvm(void *block, size_t /*size*/) {
    __wrap__ZdlPv(block);
}
}
