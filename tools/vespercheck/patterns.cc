#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "checks.h"

namespace {

// Reads an extended regular expression as far as telling what it could match.
class pattern_reader_t {
  public:
    explicit pattern_reader_t(std::string_view text) : text_(text) { read(); }

    bool has_back_reference() const { return has_back_reference_; }
    bool matches_only_empty() const { return !can_take(); }
    // A search that has to remember where any of its last characters might have begun a match learns
    // another state from almost every message.
    bool learns_without_end() const { return learns_without_end_; }

  private:
    // A group, or the whole.
    struct level_t {
        bool takes = false;       // something before its last piece takes a character
        bool last_takes = false;  // its last piece does
    };

    void read() {
        while (at_ < text_.size()) {
            has_free_run_ = has_free_run_ || is_free_run(text_.substr(at_));
            const char c = text_[at_++];
            if (c == '(') {
                levels_.emplace_back();
            } else if (c == ')' && levels_.size() > 1) {
                const bool takes = levels_.back().takes || levels_.back().last_takes;
                levels_.pop_back();
                add_piece(takes);
            } else if (c == '{') {
                read_interval();
            } else if (c == '\\') {
                read_escape();
            } else if (c == '[') {
                skip_brackets();
                add_piece(true);
            } else if (strchr("^$|*+?", c) == nullptr) {
                add_piece(true);
            }
        }
    }

    static bool is_free_run(std::string_view text) {
        return text.starts_with(".*") || text.starts_with(".+");
    }

    void add_piece(bool takes) {
        level_t &level = levels_.back();
        level.takes = level.takes || level.last_takes;
        level.last_takes = takes;
    }

    // "{0}", "{0,0}" and "{,0}" leave nothing of the piece before them.
    void read_interval() {
        const size_t end = std::min(text_.find('}', at_), text_.size());
        const std::string_view bounds = text_.substr(at_, end - at_);
        constexpr int LONG = 12;  // of which twice as many states each
        learns_without_end_ =
            learns_without_end_ || (has_free_run_ && atoi(std::string(bounds).c_str()) >= LONG);
        if (bounds == "0" || bounds == "0,0" || bounds == ",0") {
            levels_.back().last_takes = false;
        }
        at_ = std::min(end + 1, text_.size());
    }

    void read_escape() {
        const char c = at_ < text_.size() ? text_[at_++] : '\\';
        has_back_reference_ = has_back_reference_ || (c >= '1' && c <= '9');
        const bool is_place = strchr("bB<>`'", c) != nullptr;
        const bool is_reference = c >= '1' && c <= '9';
        add_piece(!is_place && !is_reference);
    }

    void skip_brackets() {
        at_ += text_.substr(at_).starts_with('^') ? 1 : 0;
        for (bool is_first = true; at_ < text_.size() && (is_first || text_[at_] != ']');
             is_first = false) {
            const char kind = text_[at_] == '[' && at_ + 1 < text_.size() ? text_[at_ + 1] : '\0';
            if (kind == ':' || kind == '.' || kind == '=') {
                at_ = std::min(text_.find(std::string{kind, ']'}, at_ + 2), text_.size() - 2) + 1;
            }
            at_++;
        }
        at_ = std::min(at_ + 1, text_.size());
    }

    bool can_take() const {
        return std::any_of(levels_.begin(), levels_.end(),
                           [](const level_t &level) { return level.takes || level.last_takes; });
    }

    std::string_view text_;
    size_t at_ = 0;
    bool has_back_reference_ = false;
    bool has_free_run_ = false;
    bool learns_without_end_ = false;
    std::vector<level_t> levels_ = std::vector<level_t>(1);
};

void check_pattern(int at, const std::string &what, const pattern_t &pattern,
                   const std::string &text, findings_t *findings) {
    if (pattern.compiled == nullptr) {
        findings->error(at, "pattern", what, " does not compile (", regex_fault(text.c_str()),
                        "): it never matches");
        return;
    }
    const pattern_reader_t reader(text);
    if (reader.has_back_reference()) {
        findings->warn(
            at, "back-reference", what,
            " refers back, which can take exponential time and stops its line for as long");
    } else if (reader.learns_without_end()) {
        findings->warn(
            at, "growing-match", what,
            " has a long interval behind .* or .+: searching with it takes memory that grows "
            "with every message");
    } else if (reader.matches_only_empty()) {
        findings->warn(at, "empty-match", what,
                       " can only match emptily, which counts as no match");
    }
}

// The value keys of a rule, in the order of the slots that they went to.
std::vector<const file_entry_t *> values_of(const file_section_t &section) {
    std::vector<const file_entry_t *> values;
    for (const file_entry_t &entry : section.entries) {
        if (entry.key.starts_with(VALUE_KEY_PREFIX)) {
            values.push_back(&entry);
        }
    }
    return values;
}

void check_value(const file_entry_t &entry, const rule_t &rule, size_t slot, bool is_last,
                 findings_t *findings) {
    if (slot >= MAX_VALUES) {
        findings->warn(entry.line, "too-many-values", entry.key, " is value ", slot + 1,
                       " of the rule: only 16 are read");
        return;
    }
    const value_t &value = rule.values[slot];
    check_pattern(entry.line, entry.key, value.pattern, entry.value, findings);
    if (value.name[0] != '\0' && value.pattern.compiled != nullptr &&
        value.pattern.compiled->re_nsub == 0) {
        findings->warn(entry.line, "no-group", entry.key, " has no group (): $", value.name,
                       " is always empty");
    }
    if (value.name != value_name(entry.key)) {
        findings->warn(entry.line, "too-long", "the name of ", entry.key, " is cut: it is ",
                       value.name);
    }
    if (value.name[0] == '\0') {
        findings->warn(entry.line, "unnamed-value", entry.key, " has no name: ",
                       is_last ? "nothing stands for it" : "the values behind it are never used");
    }
}

}  // namespace

void check_patterns(const site_t &site, findings_t *findings) {
    for (const site_rule_t &rule : site.rules) {
        check_pattern(rule.section->line_of("pattern"), "the pattern", rule.rule->pattern,
                      rule.section->text("pattern"), findings);
        for (size_t i = 0; i < CALL_FIELDS; i++) {
            const char *key = CONDITION_KEYS[i];
            if (rule.rule->conditions[i].is_given != 0) {
                check_pattern(rule.section->line_of(key), key, rule.rule->conditions[i].pattern,
                              rule.section->text(key), findings);
            }
        }
        const std::vector<const file_entry_t *> values = values_of(*rule.section);
        for (size_t slot = 0; slot < values.size(); slot++) {
            check_value(*values[slot], *rule.rule, slot, slot + 1 == values.size(), findings);
        }
    }
}
