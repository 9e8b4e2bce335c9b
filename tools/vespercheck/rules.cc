#include <algorithm>
#include <cstring>
#include <map>

#include "checks.h"
#include "rule_names.h"

namespace {

// The checks of one line's choice of rules.
class choice_checker_t {
  public:
    choice_checker_t(const site_t &site, const site_line_t &line, findings_t *findings)
        : site_(site),
          section_(*line.section),
          is_complete_(line.is_complete()),
          findings_(findings),
          names_(site, section_, findings),
          listed_(names_of(section_.text("rules"))),
          default_{section_.text("default_rule"), rule_found(section_.text("default_rule"))} {}

    void check() const {
        for (const named_t &named : listed_) {
            names_.check(named, "rules");
        }
        check_repetitions();
        check_list();
        check_default();
    }

  private:
    // Rules of the list that an earlier one always stands before.
    void check_repetitions() const {
        std::map<const void *, const named_t *>
            first;  // by rule, and by pattern if nothing else counts
        for (const named_t &named : listed_) {
            if (named.rule == nullptr) {
                continue;
            }
            const void *pattern = named.rule->pattern.compiled;
            if (const auto same = first.find(named.rule); same != first.end()) {
                findings_->warn(section_.line_of("rules"), "listed-twice", "rules: '", named.name,
                                "' finds ", site_.place_of(named.rule), " again, as '",
                                same->second->name, "' did");
            } else if (const auto tie = first.find(pattern);
                       pattern != nullptr && tie != first.end()) {
                warn_of_tie(named.rule, tie->second->rule);
            }
            first.try_emplace(named.rule, &named);
            if (!has_conditions(*named.rule)) {
                first.try_emplace(pattern, &named);
            }
        }
    }
    static bool has_conditions(const rule_t &rule) {
        return std::any_of(std::begin(rule.conditions), std::end(rule.conditions),
                           [](const condition_t &condition) { return condition.is_given != 0; });
    }
    void warn_of_tie(const rule_t *rule, const rule_t *earlier) const {
        findings_->warn(site_.section_of(rule)->line_of("pattern"), "same-pattern", rule->name,
                        " is never chosen for [", section_.name, "]: ", site_.place_of(earlier),
                        ", earlier in its list, has the same pattern");
    }

    void check_list() const {
        const bool has_list = section_.find("rules") != nullptr;
        const auto finds = [](const named_t &named) { return named.rule != nullptr; };
        if (has_list && is_complete_ && std::none_of(listed_.begin(), listed_.end(), finds)) {
            findings_->error(
                section_.line_of("rules"), "no-rule",
                "no name in rules finds a rule: every message of [", section_.name,
                default_.rule != nullptr ? "] goes to the default rule" : "] is dropped");
        }
        if (!has_list && default_.name.empty() && is_complete_) {
            findings_->warn(section_.line, "no-rule", "[", section_.name,
                            "] has neither rules nor default_rule: its messages are dropped");
        }
    }

    void check_default() const {
        const config_key_t &actions = *find_key(section_kind_t::PAGER, "send_service_actions");
        const bool sends = section_.number(actions) != 0;
        if (sends && default_.rule == nullptr) {
            findings_->error(section_.line_of(actions.name), "no-default-rule",
                             "send_service_actions without a default rule",
                             default_.name.empty() ? "" : " that is found",
                             ": no service alarm runs anything");
        }
        if (default_.name.empty()) {
            return;
        }
        if (default_.rule != nullptr || !is_complete_) {
            names_.check(default_, "default_rule");
        } else {
            findings_->error(section_.line_of("default_rule"), "no-rule", "default_rule: '",
                             default_.name,
                             "' finds no rule: messages that no listed rule matches are dropped",
                             names_.hint_for(default_.name));
        }
    }

    const site_t &site_;
    const file_section_t &section_;
    bool is_complete_;
    findings_t *findings_;
    name_checker_t names_;
    std::vector<named_t> listed_;
    named_t default_;
};

void check_reach(const site_t &site, const reached_t &reached, findings_t *findings) {
    for (const site_rule_t &rule : site.rules) {
        if (reached.contains(rule.rule)) {
            continue;
        }
        const rule_t *found = rule_found(rule.rule->name);
        const std::string why =
            found != rule.rule
                ? text_of(": its name finds ", site.place_of(found), ", which is before it")
                : "";
        findings->warn(rule.section->line, "not-reached",
                       "no list, no default rule and no otherwise reaches [", rule.section->name,
                       "]", why);
    }
}

// An acknowledgement that waits for the command, on lines that send theirs before it.
void check_acknowledgement(const site_t &site, const reached_t &reached, findings_t *findings) {
    const config_key_t &key = *find_key(section_kind_t::RULE, "ack_when_run");
    for (const site_rule_t &rule : site.rules) {
        const auto lines = reached.find(rule.rule);
        if (rule.rule->action == SCRIPT && rule.section->number(key) != 0 &&
            lines != reached.end() && !lines->second.acknowledges) {
            findings->warn(rule.section->line_of(key.name), "no-effect",
                           "ack_when_run has no effect: no line that reaches [", rule.section->name,
                           "] has ack_when_done");
        }
    }
}

// Conditions that nothing looks at, or that nothing meets.
void check_conditions(const site_t &site, const reached_t &reached, findings_t *findings) {
    for (const site_rule_t &rule : site.rules) {
        const auto given =
            std::find_if(CONDITION_KEYS.begin(), CONDITION_KEYS.end(),
                         [&](const char *key) { return rule.section->find(key) != nullptr; });
        const auto lines = reached.find(rule.rule);
        if (given == CONDITION_KEYS.end() || lines == reached.end()) {
            continue;
        }
        const int at = rule.section->line_of(*given);
        if (!lines->second.is_listed) {
            findings->warn(at, "condition", *given, " has no effect: [", rule.section->name,
                           "] is ", lines->second.is_default ? "a default rule" : "an otherwise",
                           " only, and those have no conditions");
        } else if (!lines->second.has_fields) {
            findings->warn(at, "condition", *given, ": [", rule.section->name, "] is ",
                           lines->second.is_default     ? "chosen as a default rule only"
                           : lines->second.is_passed_on ? "taken as an otherwise only"
                                                        : "never chosen",
                           ", because only ASCII lines list it and these have no fields");
        }
    }
}

}  // namespace

void check_rules(const site_t &site, findings_t *findings) {
    for (const site_line_t &line : site.lines) {
        choice_checker_t(site, line, findings).check();
    }
    const reached_t reached = reached_rules(site);
    check_reach(site, reached, findings);
    check_acknowledgement(site, reached, findings);
    check_conditions(site, reached, findings);
}
