#include "findings.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace {

// The least number of characters to put in, take out, replace or swap with a neighbour.
size_t distance(std::string_view from, std::string_view to) {
    std::vector<size_t> before;
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (size_t i = 1; i <= from.size(); i++) {
        const std::vector<size_t> above = row;
        row[0] = i;
        for (size_t j = 1; j <= to.size(); j++) {
            const bool differs = from[i - 1] != to[j - 1];
            row[j] = std::min({row[j - 1] + 1, above[j] + 1, above[j - 1] + (differs ? 1U : 0U)});
            const bool is_swapped =
                i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (is_swapped) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before = above;
    }
    return row.back();
}

}  // namespace

const char *severity_name(severity_t severity) noexcept {
    if (severity == severity_t::NOTE) {
        return "note";
    }
    return severity == severity_t::WARNING ? "warning" : "error";
}

std::vector<finding_t> findings_t::sorted() const {
    std::vector<finding_t> sorted = found_;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const finding_t &a, const finding_t &b) { return a.line < b.line; });
    std::vector<finding_t> once;
    size_t line_begins = 0;
    for (const finding_t &finding : sorted) {
        if (!once.empty() && once.back().line != finding.line) {
            line_begins = once.size();
        }
        const auto of_line = once.begin() + static_cast<std::ptrdiff_t>(line_begins);
        if (std::find(of_line, once.end(), finding) == once.end()) {
            once.push_back(finding);
        }
    }
    return once;
}

std::string nearest_name(std::string_view name, const std::vector<std::string> &known) {
    constexpr size_t LONGEST = 64;  // names that somebody has typed
    const std::string lower = lower_case(name.substr(0, LONGEST));
    size_t nearest = std::max<size_t>(lower.size() / 3, 1) + 1;
    std::string found;
    for (const std::string &candidate : known) {
        const bool is_begun = lower.size() >= 3 && candidate.starts_with(lower);
        const size_t far = is_begun ? 0 : distance(lower, candidate.substr(0, LONGEST));
        if (far < nearest && far < lower.size()) {
            nearest = far;
            found = candidate;
        }
    }
    return found;
}

std::string lower_case(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return static_cast<char>(tolower(static_cast<unsigned char>(c)));
    });
    return lower;
}

std::string_view without_blanks(std::string_view text) {
    const auto is_blank = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}
