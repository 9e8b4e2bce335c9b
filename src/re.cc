#include "re.h"

#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "logger.h"
#include "re_memory.h"
#include "shared.h"
#include "text.h"

namespace {

constexpr int MAX_POSITIONS = 10;  // the whole match and groups 1 to 9
constexpr size_t ERROR_SIZE = 1024;

constexpr int64_t MAX_FILE_US = 10'000'000;
constexpr size_t MAX_FILE_BYTES = 512 << 20;
constexpr const char *TOO_LARGE = "Too large together with the patterns before it";

// What is known of a text.
struct compilation_t {
    regex_t compiled;
    bool is_compiled = false;
    std::string fault;     // why not, where that does not depend on other patterns
    size_t bytes = 0;      // that the compilation keeps or would keep; 0: nobody has tried
    unsigned counted = 0;  // the configuration in whose count they are
};

using compilations_t = std::map<std::string, compilation_t, std::less<>>;

// Node-based, so that a compilation keeps its address; never destroyed, because service threads may
// still be matching while the process exits.
compilations_t &compilations() {
    static compilations_t &known = *std::make_unique<compilations_t>().release();
    return known;
}

// What the patterns of the configuration that is being loaded have taken so far.
struct {
    unsigned number = 1;
    int64_t us = 0;
    size_t bytes = 0;
} file;

std::string reason_of(int error, const regex_t *compiled) {
    char reason[ERROR_SIZE];
    regerror(error, compiled, reason, sizeof reason);
    return reason;
}

// CPU time of the calling thread.
int64_t cpu_us() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return int64_t{used.tv_sec} * 1'000'000 + used.tv_nsec / 1000;
}

bool has_room(const compilation_t &known) {
    return known.counted == file.number || file.bytes + known.bytes <= MAX_FILE_BYTES;
}

void count(compilation_t *known) {
    if (known->counted != file.number) {
        known->counted = file.number;
        file.bytes += known->bytes;
    }
}

// Compiles a text of which nothing is known, or too little.
void compile(const char *text, compilation_t *known) {
    // Trying it and then having it could take as long.
    const bool can_try = file.us <= MAX_FILE_US - 2 * MAX_TRIAL_US;
    const regex_cost_t cost = regex_cost(text, can_try);
    file.us += cost.us;
    if (cost.error != 0) {
        known->fault = cost.is_final ? reason_of(cost.error, nullptr) : "";
        return;
    }
    known->bytes = cost.bytes;
    if (!has_room(*known)) {
        return;
    }
    const int64_t began = cpu_us();
    const int error = regcomp(&known->compiled, text, REG_EXTENDED | REG_NEWLINE);
    file.us += cpu_us() - began;
    known->is_compiled = error == 0;
    known->fault = error != 0 ? reason_of(error, &known->compiled) : "";
}

// What is known of a text once it was searched for: the one search for all who ask.
compilation_t &find_or_compile(const char *text) {
    compilation_t &known = compilations()[text];
    const bool is_decided = known.is_compiled || !known.fault.empty();
    if (!is_decided && has_room(known)) {
        compile(text, &known);
    }
    if (known.is_compiled && has_room(known)) {
        count(&known);
    }
    return known;
}

// Why a text cannot be used; null when it can.
const char *fault_of(const compilation_t &known) {
    if (!known.fault.empty()) {
        return known.fault.c_str();
    }
    return known.counted == file.number ? nullptr : TOO_LARGE;
}

std::string_view piece(const char *text, const regmatch_t &position) {
    return {text + position.rm_so, static_cast<size_t>(position.rm_eo - position.rm_so)};
}

}  // namespace

void begin_patterns() noexcept {
    file.number++;
    file.us = 0;
    file.bytes = 0;
}

int compile_regex(pattern_t *compiled, const char *text) noexcept {
    const compilation_t &known = find_or_compile(text);
    const char *fault = fault_of(known);
    compiled->compiled = fault == nullptr ? &known.compiled : nullptr;
    if (fault != nullptr) {
        LOG(LEVEL_ERROR, "Regex error compiling '%s': %s\n", text, fault);
        return 1;
    }
    return 0;
}

std::string regex_fault(const char *text) noexcept {
    const char *fault = fault_of(find_or_compile(text));
    return fault != nullptr ? fault : "";
}

int match_regex(const pattern_t *pattern, const char *text, char *out, int size) noexcept {
    const regex_t *compiled = load_shared(pattern->compiled);
    if (compiled == nullptr) {
        return 0;
    }
    regmatch_t positions[MAX_POSITIONS];
    // Positions of groups cost ten times the match itself, so they are only asked for when wanted.
    const size_t wanted = out != nullptr ? MAX_POSITIONS : 1;
    text_writer_t groups(out, size);
    int index = 0;
    while (regexec(compiled, text, wanted, positions, 0) == 0 && *text != '\0') {
        const int end = positions[0].rm_eo;
        if (end == 0) {
            break;  // an empty match here would be found again and again
        }
        index = end - positions[0].rm_so;
        for (size_t i = 1; i < wanted && positions[i].rm_so >= 0; i++) {
            groups.append(piece(text, positions[i]));
        }
        text += end;
    }
    return index;
}
