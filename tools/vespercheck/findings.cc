#include "findings.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <set>
#include <tuple>

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

bool findings_t::has_room(const char *kind) const {
    const auto known = kinds_.find(kind);
    return known == kinds_.end() || known->second.kept < MAX_OF_KIND;
}

bool findings_t::take_room(int line, severity_t severity, const char *kind) {
    tally_t &tally = kinds_[kind];
    if (tally.kept < MAX_OF_KIND) {
        tally.kept++;
        return true;
    }
    tally.line = tally.left_out == 0 ? line : std::min(tally.line, line);
    tally.worst = std::max(tally.worst, severity);
    tally.left_out++;
    return false;
}

std::string findings_t::compare(std::string_view name, const std::vector<std::string> &known) {
    comparisons_left_ -= std::min(comparisons_left_, known.size());
    return nearest_name(name, known);
}

std::vector<finding_t> findings_t::sorted() const {
    std::vector<finding_t> all = found_;
    for (const auto &[kind, tally] : kinds_) {
        if (tally.left_out > 0) {
            all.push_back({tally.line, tally.worst, kind.c_str(),
                           text_of(tally.left_out, " more of the kind ", kind, " from here on")});
        }
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const finding_t &a, const finding_t &b) { return a.line < b.line; });
    std::set<std::tuple<int, severity_t, std::string_view, std::string>> seen;
    std::erase_if(all, [&](const finding_t &finding) {
        return !seen.emplace(finding.line, finding.severity, finding.kind, finding.text).second;
    });
    return all;
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
