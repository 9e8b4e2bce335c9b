#include "re.h"

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

using compilations_t = std::map<std::string, regex_t, std::less<>>;

// Node-based, so that a compilation keeps its address; never destroyed, because service threads may
// still be matching while the process exits.
compilations_t &compilations() {
    static compilations_t &known = *std::make_unique<compilations_t>().release();
    return known;
}

int compile(regex_t *compiled, const char *text) {
    return fits_memory(text) ? regcomp(compiled, text, REG_EXTENDED | REG_NEWLINE) : REG_ESPACE;
}

std::string reason_of(int error, const regex_t *compiled) {
    char reason[ERROR_SIZE];
    regerror(error, compiled, reason, sizeof reason);
    return reason;
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
            LOG(LEVEL_ERROR, "Regex error compiling '%s': %s\n", text,
                reason_of(error, &entry->second).c_str());
            known.erase(entry);
            compiled->compiled = nullptr;
            return 1;
        }
    }
    compiled->compiled = &entry->second;
    return 0;
}

std::string regex_fault(const char *text) noexcept {
    regex_t compiled;
    const int error = compile(&compiled, text);
    if (error != 0) {
        return reason_of(error, &compiled);
    }
    regfree(&compiled);
    return "";
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
