#include "re_memory.h"

#include <fcntl.h>
#include <regex.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "fd.h"
#include "files.h"

namespace {

constexpr rlim_t MAX_BYTES = 256 << 20;
constexpr rlim_t MAX_SECONDS = 2;

// So many pieces written out take less than 100 MB.
constexpr double SURELY_FITS = 1'000'000;

// The position of the ']' that ends the bracket expression opened at `at`. A ']' that comes first is
// a member, and [:class:], [.element.] and [=class=] hold theirs.
size_t end_of_brackets(std::string_view text, size_t at) {
    at += text.substr(at).starts_with("[^") ? 2 : 1;
    for (bool is_first = true; at < text.size() && (is_first || text[at] != ']');
         is_first = false) {
        const char kind = text[at] == '[' && at + 1 < text.size() ? text[at + 1] : '\0';
        if (kind == ':' || kind == '.' || kind == '=') {
            at = std::min(text.find(std::string{kind, ']'}, at + 2), text.size() - 2) + 1;
        }
        at++;
    }
    return at;
}

// The larger bound of the interval opened at `at`, at least 1.
double interval_bound(std::string_view text, size_t at) {
    double largest = 1;
    double bound = 0;
    for (at++; at < text.size() && text[at] != '}'; at++) {
        const bool is_digit = text[at] >= '0' && text[at] <= '9';
        bound = is_digit ? bound * 10 + (text[at] - '0') : 0;
        largest = std::max(largest, bound);
    }
    return largest;
}

// The pieces that a group of a pattern comes to once its repetitions are written out.
struct group_t {
    double before = 1;  // everything in the group but its last piece
    double last = 0;
    bool is_repeated = false;  // the last piece, or what stands in it
};

// Repetitions of what is repeated already take the compiler time that grows exponentially.
void repeat(group_t *group) {
    group->last *= group->is_repeated ? 8 : 2;
    group->is_repeated = true;
}

void begin_piece(group_t *group) {
    group->before += group->last;
    group->last = 1;
    group->is_repeated = false;
}

// The innermost group becomes the last piece of the one around it.
void end_group(std::vector<group_t> *groups) {
    const group_t inside = groups->back();
    groups->pop_back();
    begin_piece(&groups->back());
    groups->back().last = inside.before + inside.last;
    groups->back().is_repeated = inside.is_repeated;
}

// A bound for the pieces that `text` comes to once its repetitions are written out.
double written_out(std::string_view text) {
    std::vector<group_t> groups(1);
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (c == '{') {
            const double bound = interval_bound(text, i);
            repeat(&groups.back());
            groups.back().last *= bound * bound;
            i = std::min(text.find('}', i), text.size());
        } else if (c == '+' || c == '*' || c == '?') {
            repeat(&groups.back());
        } else if (c == '(') {
            groups.emplace_back();
        } else if (c == ')' && groups.size() > 1) {
            end_group(&groups);
        } else {
            begin_piece(&groups.back());
            i = c == '[' ? end_of_brackets(text, i) : i + (c == '\\' ? 1 : 0);
        }
    }
    double total = 0;
    for (const group_t &group : groups) {
        total += group.before + group.last;
    }
    return total;
}

rlim_t address_space() {
    const unique_file_t file(fopen("/proc/self/statm", "re"));
    unsigned long pages = 0;
    if (!file || fscanf(file.get(), "%lu", &pages) != 1) {
        return 0;
    }
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

bool set_limit(decltype(RLIMIT_AS) resource, rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = limit.rlim_max = std::min(wanted, limit.rlim_max);
    return setrlimit(resource, &limit) == 0;
}

// The child's side: returns whether the text compiles within the limits, or the system ends it.
bool compiles_within_limits(const char *text) {
    const rlim_t used = address_space();
    regex_t unused;
    return used > 0 && set_limit(RLIMIT_AS, used + MAX_BYTES) &&
           set_limit(RLIMIT_CPU, MAX_SECONDS) &&
           regcomp(&unused, text, REG_EXTENDED | REG_NEWLINE) != REG_ESPACE;
}

// The answer comes through a pipe: a process that ignores SIGCHLD learns no exit status.
bool compiles_in_child(const char *text) {
    int answer[2];
    if (pipe2(answer, O_CLOEXEC) != 0) {
        return false;
    }
    unique_fd_t from_child(answer[0]);
    unique_fd_t to_parent(answer[1]);
    const pid_t child = fork();
    if (child == 0) {
        _exit(compiles_within_limits(text) && write(to_parent.get(), "", 1) == 1 ? 0 : 1);
    }
    to_parent.reset();
    char byte = 0;
    ssize_t got = 0;
    do {
        got = child > 0 ? read(from_child.get(), &byte, 1) : 0;
    } while (got < 0 && errno == EINTR);
    while (child > 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return got == 1;
}

}  // namespace

bool fits_memory(const char *text) noexcept {
    return written_out(text) <= SURELY_FITS || compiles_in_child(text);
}
