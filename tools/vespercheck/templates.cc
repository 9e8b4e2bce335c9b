#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

#include "checks.h"

namespace {

constexpr std::string_view PLACEHOLDERS[] = {"%number%", "%alarm%", "%message%"};
constexpr std::string_view FIELD_PLACEHOLDERS[] = {"%priority%", "%type%", "%beep%",
                                                   "%transmissions%", "%line%"};
constexpr size_t SHORTEST_WORD = 3;  // "%H%M" is a time

bool is_word_character(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// The word characters that a text begins with.
std::string_view word_of(std::string_view text) {
    const auto end = std::find_if_not(text.begin(), text.end(), is_word_character);
    return text.substr(0, static_cast<size_t>(end - text.begin()));
}

template <size_t N>
std::string_view one_of(const std::string_view (&words)[N], std::string_view text) {
    const auto found = std::find_if(std::begin(words), std::end(words),
                                    [&](std::string_view word) { return text.starts_with(word); });
    return found != std::end(words) ? *found : std::string_view();
}

// Whether what stands for it comes from the line, and not from the configuration or the daemon.
bool is_from_line(std::string_view placeholder) {
    return placeholder.starts_with('%') && placeholder != "%alarm%" && placeholder != "%line%";
}

// Where a shell stands in its quotes, and in the commands that it runs for their output.
class shell_place_t {
  public:
    void pass(char c) {
        const char before = std::exchange(before_, '\0');
        if (is_escaped_) {
            is_escaped_ = false;
        } else if (c == '\\' && (level().open != '\'' || is_in_backquotes())) {
            is_escaped_ = true;
        } else if (c == '`') {
            pass_backquote();
        } else if (c == '(' && (level().open == 0 || (level().open == '"' && before == '$'))) {
            levels_.push_back({')', 0});
        } else if (c == ')' && level().open == 0 && level().end == ')') {
            levels_.pop_back();
        } else if (level().open == 0 && (c == '\'' || c == '"')) {
            level().open = c;
        } else if (c == level().open) {
            level().open = 0;
        } else {
            before_ = c;
        }
    }
    bool is_quoted() const { return levels_.back().open != 0; }
    bool is_in_backquotes() const {
        return std::any_of(levels_.begin(), levels_.end(),
                           [](const level_t &level) { return level.end == '`'; });
    }
    // Nothing is open, and the next character means itself.
    bool is_outside() const { return levels_.size() == 1 && !is_quoted() && !is_escaped_; }

  private:
    struct level_t {
        char end;   // what ends it: ')' or '`'; of the command line itself nothing
        char open;  // the quote that is open
    };

    level_t &level() { return levels_.back(); }

    // It ends a command that began with one, in whatever quotes of that command it stands.
    void pass_backquote() {
        if (!is_in_backquotes() && level().open != '\'') {
            levels_.push_back({'`', 0});
            return;
        }
        while (is_in_backquotes()) {
            levels_.pop_back();
        }
    }

    std::vector<level_t> levels_ = {{0, 0}};
    bool is_escaped_ = false;
    char before_ = '\0';
};

// Goes through a template as its expansion does.
class template_checker_t {
  public:
    template_checker_t(const rule_t &rule, const config_key_t &key, bool is_default, int at,
                       findings_t *findings)
        : rule_(rule),
          key_(key),
          is_command_(key.name == std::string_view("callscript")),
          is_default_(is_default),
          at_(at),
          findings_(findings) {
        while (num_values_ < MAX_VALUES && rule.values[num_values_].name[0] != '\0') {
            num_values_++;
        }
    }

    void check(std::string_view text) {
        whole_ = text;
        while (!text.empty()) {
            const std::string_view placeholder = placeholder_at(text);
            if (!placeholder.empty()) {
                ends_in_background_ = false;
                check_quoting(placeholder);
                text.remove_prefix(placeholder.size());
                continue;
            }
            if (text.front() == '%') {
                check_unknown(text);
            } else if (text.front() == '$') {
                text = check_values(text);
            }
            if (!text.empty()) {
                pass(text.front());
                text.remove_prefix(1);
            }
        }
        if (is_command_ && ends_in_background_) {
            warn("background",
                 "the line does not wait for a command that ends in '&': a flood of packets starts "
                 "processes until there is room for none, of any line. Take the '&' away, and put "
                 "'timeout 10' before a command that could take long");
        }
    }

  private:
    template <typename... parts_t>
    void warn(const char *kind, const parts_t &...parts) {
        findings_->warn(at_, kind, key_.name, ": ", parts...);
    }

    void pass(char c) {
        if (c != ' ' && c != '\t') {
            ends_in_background_ = c == '&' && place_.is_outside();
        }
        place_.pass(c);
    }

    void check_quoting(std::string_view placeholder) {
        const bool is_text = is_from_line(placeholder);
        if (!is_command_) {
            return;
        }
        if (place_.is_in_backquotes() && placeholder != "%alarm%" &&
            (rule_.quote != 0 || !is_text)) {
            warn("quoting", placeholder,
                 " stands in backquotes, inside of which quotes do not hold: write $( ) instead");
        } else if (rule_.quote != 0) {
            if (place_.is_quoted()) {
                warn("quoting", placeholder,
                     " stands in quotes, and quote = yes puts quotes of its own around it: take "
                     "the template's away");
            }
        } else if (is_text) {
            warn("quoting", placeholder,
                 place_.is_quoted() ? " stands in quotes that a quote in the text ends"
                                    : " stands there without quotes",
                 ": what a line sends runs as a command. Set quote = yes",
                 place_.is_quoted() ? " and take the quotes away" : "");
        }
    }

    std::string_view placeholder_at(std::string_view text) const {
        const std::string_view usual = one_of(PLACEHOLDERS, text);
        return usual.empty() && rule_.record_fields != 0 ? one_of(FIELD_PLACEHOLDERS, text) : usual;
    }

    void check_unknown(std::string_view text) {
        if (const std::string_view field = one_of(FIELD_PLACEHOLDERS, text); !field.empty()) {
            warn("placeholder", field, " is copied as it stands without record_fields = yes");
            return;
        }
        const std::string_view word = word_of(text.substr(1));
        if (is_default_ || word.size() < SHORTEST_WORD ||
            !text.substr(1 + word.size()).starts_with('%')) {
            return;
        }
        const std::string near = findings_->hint(word, [] {
            return std::vector<std::string>{"number", "alarm", "message"};
        });
        warn("placeholder", "%", word, "% is no placeholder and is copied as it stands",
             near.empty() ? "" : text_of("; did you mean %", near, "%?"));
    }

    // What stands at a "$". Returns the rest, whose first character is copied as it is.
    std::string_view check_values(std::string_view text) {
        const std::string_view begin = text;
        for (int i = 0; i < num_values_; i++) {
            const std::string name = text_of("$", rule_.values[i].name);
            if (text.starts_with(name)) {
                check_shadow(text, i);
                check_quoting(name);
                text.remove_prefix(name.size());
            }
        }
        if (text.size() == begin.size()) {
            check_unknown_value(text);
        } else {
            check_swallowed(begin.substr(0, begin.size() - text.size()), text);
        }
        return text;
    }

    void check_shadow(std::string_view text, int taken) {
        const std::string_view name(rule_.values[taken].name);
        for (int i = taken + 1; i < num_values_; i++) {
            const std::string_view longer(rule_.values[i].name);
            if (longer.size() > name.size() && text.substr(1).starts_with(longer)) {
                warn("shadowed", "$", longer, " is $", name, " followed by '",
                     longer.substr(name.size()), "', because value[", name,
                     "] comes before it: put value[", longer, "] first");
            }
        }
    }

    // The character behind a value begins no placeholder.
    void check_swallowed(std::string_view values, std::string_view text) {
        const std::string_view placeholder = placeholder_at(text);
        if (!placeholder.empty()) {
            warn("placeholder", placeholder, " directly behind ", values,
                 " is copied as it stands: put another character in between");
        } else if (text.starts_with('$') && !value_at(text).empty()) {
            warn("placeholder", value_at(text), " directly behind ", values,
                 " is copied as it stands, because its value comes first: put another character "
                 "in between");
        }
    }
    std::string value_at(std::string_view text) const {
        for (int i = 0; i < num_values_; i++) {
            const std::string name = text_of("$", rule_.values[i].name);
            if (text.starts_with(name)) {
                return name;
            }
        }
        return "";
    }

    void check_unknown_value(std::string_view text) {
        const std::string_view word = word_of(text.substr(1));
        if (word.empty() || isdigit(static_cast<unsigned char>(word[0])) != 0) {
            return;
        }
        const std::string near = findings_->hint(word, [this] {
            std::vector<std::string> names;
            for (int i = 0; i < num_values_; i++) {
                names.emplace_back(rule_.values[i].name);
            }
            return names;
        });
        if (is_command_ && near.empty() && is_shell_variable(word)) {
            return;
        }
        warn("placeholder", "there is no value[", lower_case(word), "] for $", word,
             ", which is copied as it stands",
             near.empty() ? "" : text_of("; did you mean $", near, "?"));
    }

    // A variable of the environment, or one that the command itself sets.
    bool is_shell_variable(std::string_view word) const {
        const std::string name(word);
        return isupper(static_cast<unsigned char>(word[0])) != 0 || word[0] == '_' ||
               whole_.find(name + "=") != std::string_view::npos ||
               whole_.find(" " + name + " ") != std::string_view::npos ||
               whole_.find(" " + name + ";") != std::string_view::npos;
    }

    const rule_t &rule_;
    const config_key_t &key_;
    bool is_command_;
    bool is_default_;
    int at_;
    findings_t *findings_;
    int num_values_ = 0;
    std::string_view whole_;
    shell_place_t place_;
    bool ends_in_background_ = false;
};

bool is_expanded(const config_key_t &key, int action) {
    if (key.kind != section_kind_t::RULE || key.reading != reading_t::TEMPLATE) {
        return false;
    }
    return action == (key.name == std::string_view("callscript") ? SCRIPT : CALL);
}

}  // namespace

void check_templates(const site_t &site, findings_t *findings) {
    for (const site_rule_t &rule : site.rules) {
        for (const config_key_t &key : keys::TABLE) {
            if (is_expanded(key, rule.rule->action)) {
                const file_section_t &section = *rule.section;
                template_checker_t checker(*rule.rule, key, section.find(key.name) == nullptr,
                                           section.line_of(key.name), findings);
                checker.check(section.text(key.name));
            }
        }
    }
}
