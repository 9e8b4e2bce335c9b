#include "re_memory.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <regex.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fd.h"
#include "files.h"

namespace {

constexpr rlim_t MAX_BYTES = 256 << 20;
constexpr rlim_t MAX_SECONDS = MAX_TRIAL_US / 1'000'000;
constexpr int PATIENCE_MS = 60'000;  // with a child that has its CPU time at last on a busy machine

// What is written out in so many pieces, and does not multiply, takes less than five milliseconds.
constexpr double HARMLESS_PIECES = 500;
constexpr size_t BYTES_PER_PIECE = 2'000;  // 100 as a rule

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

void repeat(group_t *group) {
    group->last *= 2;
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

// Reads an extended regular expression as far as telling whether it could take long to compile.
class pattern_size_t {
  public:
    explicit pattern_size_t(std::string_view text) : text_(text) {
        for (size_t at = 0; at < text_.size(); at++) {
            at = read_at(at);
        }
    }

    // A bound for the pieces that it comes to once its repetitions are written out.
    double pieces() const {
        double total = 0;
        for (const group_t &group : groups_) {
            total += group.before + group.last;
        }
        return total;
    }
    // Whether it repeats what is repeated already, or has places such as "\b", or nothing at all between
    // two "|": the compiler makes as many copies as there are ways to get there. "^" and "$" where they
    // stand for the whole do not count.
    bool multiplies() const { return has_places_ || has_nested_repetitions_; }

  private:
    // Returns the position of the last character that was read.
    size_t read_at(size_t at) {
        const char c = text_[at];
        const bool is_at_branch = std::exchange(is_at_branch_, c == '|' || c == '(');
        has_places_ = has_places_ || (is_at_branch && (c == '|' || c == ')'));
        if (c == '{' || c == '+' || c == '*' || c == '?') {
            return read_repetition(at);
        }
        if (c == '(') {
            groups_.emplace_back();
        } else if (c == ')' && groups_.size() > 1) {
            end_group(&groups_);
        } else {
            begin_piece(&groups_.back());
            at = read_piece(at, is_at_branch);
        }
        return at;
    }

    size_t read_repetition(size_t at) {
        has_nested_repetitions_ = has_nested_repetitions_ || groups_.back().is_repeated;
        repeat(&groups_.back());
        if (text_[at] != '{') {
            return at;
        }
        const double bound = interval_bound(text_, at);
        groups_.back().last *= bound * bound;
        return std::min(text_.find('}', at), text_.size());
    }

    size_t read_piece(size_t at, bool is_at_branch) {
        constexpr std::string_view ESCAPED_PLACES = "bB<>`'";
        const char c = text_[at];
        if (c == '[') {
            return end_of_brackets(text_, at);
        }
        if (c == '\\' && at + 1 < text_.size()) {
            has_places_ =
                has_places_ || ESCAPED_PLACES.find(text_[at + 1]) != std::string_view::npos;
            return at + 1;
        }
        const bool is_inside = groups_.size() > 1;
        const bool is_at_end = at + 1 == text_.size() || text_[at + 1] == '|';
        has_places_ = has_places_ || (c == '^' && (is_inside || !is_at_branch)) ||
                      (c == '$' && (is_inside || !is_at_end));
        return at;
    }

    std::string_view text_;
    std::vector<group_t> groups_ = std::vector<group_t>(1);
    bool is_at_branch_ = true;  // nothing yet between "(" or "|" and here
    bool has_places_ = false;
    bool has_nested_repetitions_ = false;
};

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

// A sanitizer's memory is known to the kernel alone.
size_t bytes_in_use() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks > 0 ? info.uordblks + info.hblkhd : address_space();
}

int64_t cpu_us() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return int64_t{used.tv_sec} * 1'000'000 + used.tv_nsec / 1000;
}

// The child's side: what the text takes within the limits, or the system ends it.
regex_cost_t cost_within_limits(const char *text) {
    const rlim_t used = address_space();
    if (used == 0 || !set_limit(RLIMIT_CORE, 0) || !set_limit(RLIMIT_AS, used + MAX_BYTES) ||
        !set_limit(RLIMIT_CPU, MAX_SECONDS)) {
        return {REG_ESPACE, false, 0, 0};
    }
    const size_t bytes_before = bytes_in_use();
    regex_t unused;
    const int error = regcomp(&unused, text, REG_EXTENDED | REG_NEWLINE);
    return {error, true, bytes_in_use() - bytes_before, std::min(cpu_us(), MAX_TRIAL_US)};
}

// What the child has said when it has ended. One that ended without a word was ended by its limits.
regex_cost_t heard_from(const unique_fd_t &child) {
    pollfd waiting{child.get(), POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&waiting, 1, PATIENCE_MS);
    } while (ready < 0 && errno == EINTR);
    regex_cost_t cost{};
    if (ready > 0 && read(child.get(), &cost, sizeof cost) == sizeof cost) {
        return cost;
    }
    return {REG_ESPACE, ready > 0, 0, MAX_TRIAL_US};
}

// The answer comes through a pipe: a process that ignores SIGCHLD learns no exit status.
regex_cost_t cost_in_child(const char *text) {
    int answer[2];
    if (pipe2(answer, O_CLOEXEC) != 0) {
        return {REG_ESPACE, false, 0, 0};
    }
    const unique_fd_t from_child(answer[0]);
    unique_fd_t to_parent(answer[1]);
    const pid_t child = fork();
    if (child == 0) {
        const regex_cost_t cost = cost_within_limits(text);
        _exit(write(to_parent.get(), &cost, sizeof cost) == sizeof cost ? 0 : 1);
    }
    if (child < 0) {
        return {REG_ESPACE, false, 0, 0};
    }
    to_parent.reset();
    const regex_cost_t cost = heard_from(from_child);
    kill(child, SIGKILL);  // it has nothing more to say
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return cost;
}

}  // namespace

regex_cost_t regex_cost(const char *text, bool can_try) noexcept {
    const pattern_size_t size(text);
    if (size.pieces() <= HARMLESS_PIECES && !size.multiplies()) {
        return {0, true, static_cast<size_t>(size.pieces()) * BYTES_PER_PIECE, 0};
    }
    return can_try ? cost_in_child(text) : regex_cost_t{REG_ESPACE, false, 0, 0};
}
