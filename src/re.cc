#include "re.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "logger.h"
#include "text.h"

namespace {

constexpr int MAX_POSITIONS = 10;  // the whole match and groups 1 to 9
constexpr size_t ERROR_SIZE = 1024;

// The C library writes every interval out, about 200 bytes a time: "x{32767}{32767}" asks for more
// memory than the machine has. A quarter of a million is far above any pattern for a paging
// message.
constexpr double MAX_REPETITIONS = 262'144;

using compilations_t = std::map<std::string, regex_t, std::less<>>;

// Node-based, so that a compilation keeps its address; never destroyed, because service threads may
// still be matching while the process exits.
compilations_t &compilations() {
    static compilations_t &known = *std::make_unique<compilations_t>().release();
    return known;
}

// The position after the bracket expression that opens at `at`.
size_t skip_brackets(std::string_view text, size_t at) {
    at += text.substr(at).starts_with("[^") ? 2 : 1;
    return std::min(text.find(']', at + 1), text.size() - 1) + 1;
}

// The larger bound of the interval that opens at `at`, at least 1.
double interval_bound(std::string_view text, size_t at) {
    const std::string interval(text.substr(at + 1, text.find('}', at) - at - 1));
    const size_t comma = interval.find(',');
    const double least = atof(interval.c_str());
    const double most = comma == std::string::npos ? 0 : atof(interval.c_str() + comma + 1);
    return std::max({least, most, 1.0});
}

// About how many characters `text` comes to once its intervals are written out.
double written_out(std::string_view text) {
    struct group_t {
        double before = 0;  // everything in the group but its last piece
        double last = 0;
    };
    std::vector<group_t> groups(1);
    for (size_t i = 0; i < text.size(); i++) {
        group_t &group = groups.back();
        if (text[i] == '{') {
            group.last *= interval_bound(text, i);
            i = std::min(text.find('}', i), text.size());
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
                i = skip_brackets(text, i) - 1;
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
    if (written_out(text) > MAX_REPETITIONS) {
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
    if (pattern->compiled == nullptr) {
        return 0;
    }
    regmatch_t positions[MAX_POSITIONS];
    // Positions of groups cost ten times the match itself, so they are only asked for when wanted.
    const size_t wanted = out != nullptr ? MAX_POSITIONS : 1;
    text_writer_t groups(out, size);
    int index = 0;
    while (regexec(pattern->compiled, text, wanted, positions, 0) == 0 && *text != '\0') {
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
