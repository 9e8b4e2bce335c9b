#include "re.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "logger.h"
#include "shared.h"
#include "text.h"

namespace {

constexpr int MAX_POSITIONS = 10;  // the whole match and groups 1 to 9
constexpr size_t ERROR_SIZE = 1024;

// The C library writes repetitions out: "+" doubles its piece, an interval costs up to the square of
// its bound. Left alone, "x{0,32767}" or thirty "+" in a row ask for more memory than the machine has.
// This much stays below 100 MB.
constexpr double MAX_WRITTEN_OUT = 1'000'000;

using compilations_t = std::map<std::string, regex_t, std::less<>>;

// Node-based, so that a compilation keeps its address; never destroyed, because service threads may
// still be matching while the process exits.
compilations_t &compilations() {
    static compilations_t &known = *std::make_unique<compilations_t>().release();
    return known;
}

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

// A bound for the pieces that `text` comes to once its intervals are written out.
double written_out(std::string_view text) {
    struct group_t {
        double before = 1;  // everything in the group but its last piece
        double last = 0;
    };
    std::vector<group_t> groups(1);
    for (size_t i = 0; i < text.size(); i++) {
        group_t &group = groups.back();
        if (text[i] == '{') {
            group.last *= interval_bound(text, i) * interval_bound(text, i);
            i = std::min(text.find('}', i), text.size());
        } else if (text[i] == '+') {
            group.last *= 2;
        } else if (text[i] == '(') {
            groups.emplace_back();
        } else if (text[i] == ')' && groups.size() > 1) {
            const double inside = group.before + group.last;
            groups.pop_back();
            groups.back().before += groups.back().last;
            groups.back().last = inside;
        } else {
            group.before += group.last;
            group.last = 1;
            if (text[i] == '\\') {
                i++;
            } else if (text[i] == '[') {
                i = end_of_brackets(text, i);
            }
        }
    }
    double total = 0;
    for (const group_t &group : groups) {
        total += group.before + group.last;
    }
    return total;
}

int compile(regex_t *compiled, const char *text) {
    if (written_out(text) > MAX_WRITTEN_OUT) {
        return REG_ESPACE;
    }
    return regcomp(compiled, text, REG_EXTENDED | REG_NEWLINE);
}

std::string_view piece(const char *text, const regmatch_t &position) {
    return {text + position.rm_so, static_cast<size_t>(position.rm_eo - position.rm_so)};
}

}  // namespace

int compile_regex(pattern_t *compiled, const char *text) noexcept {
    compilations_t &known = compilations();
    const auto [entry, is_new] = known.try_emplace(text);
    if (is_new) {
        const int error = compile(&entry->second, text);
        if (error != 0) {
            char reason[ERROR_SIZE];
            regerror(error, &entry->second, reason, sizeof reason);
            LOG(LEVEL_ERROR, "Regex error compiling '%s': %s\n", text, reason);
            known.erase(entry);
            compiled->compiled = nullptr;
            return 1;
        }
    }
    compiled->compiled = &entry->second;
    return 0;
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
