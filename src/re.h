// POSIX extended regular expressions as the rules use them.
#pragma once

#include <regex.h>

#include <string>

// A compiled pattern, copied freely. It refers to a compilation that is never freed or changed, so
// a thread may go on matching with it whatever a reload does; equal texts share one compilation.
// Null: not compiled, matches nothing.
struct pattern_t {
    const regex_t *compiled;

    bool operator==(const pattern_t &) const = default;
};

// Begins with the patterns of another configuration. Those of one can take 10 seconds of CPU time and 512
// MB altogether; patterns that other configurations had count again, but take no time.
void begin_patterns() noexcept;

// Compiles `text` (POSIX extended syntax, case-sensitive, newline-aware: REG_EXTENDED |
// REG_NEWLINE). Returns 0, or 1 after logging an ERROR when the text does not compile; `compiled`
// then matches nothing. A pattern that would take more than 256 MB or 2 seconds of CPU time is refused in the
// same way, as "Memory exhausted", and one for which the configuration leaves no room as "Too large
// together with the patterns before it". Equal texts are compiled once, and refused ones tried once.
// For the loading thread only.
int compile_regex(pattern_t *compiled, const char *text) noexcept;

// Why compile_regex() refuses `text` in this configuration; empty when it does not. Nothing is logged.
std::string regex_fault(const char *text) noexcept;

// Scans `text` for successive matches, from left to right; "^" matches at the start of every
// remaining piece.
//   out, size  when out is not null, receives the texts of groups 1 to 9 of every match, one after
//              the other, cut at size - 1 bytes and zero-terminated; untouched when there are none
// Returns the length in bytes of the last match, 0 when there was none. An empty match where the
// scan stands ends it and does not count.
int match_regex(const pattern_t *pattern, const char *text, char *out, int size) noexcept;
