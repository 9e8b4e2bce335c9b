#include "rule_names.h"

#include <algorithm>
#include <cstring>

#include "keys.h"
#include "rule.h"

namespace {

constexpr std::string_view RULE_PREFIX = "rule_";

// Passes on what is said of a rule to those that follow it.
void reach_otherwise(reached_t *reached) {
    std::vector<const rule_t *> begun;
    for (const auto &[rule, reach] : *reached) {
        begun.push_back(rule);
    }
    while (!begun.empty()) {
        const rule_t *rule = begun.back();
        begun.pop_back();
        if (rule == nullptr || rule->action != CALL || !(*reached)[rule].is_followed) {
            continue;
        }
        if (const rule_t *next = rule_found(rule->otherwise);
            next != nullptr && !(*reached)[next].is_passed_on) {
            (*reached)[next].is_passed_on = (*reached)[next].is_followed = true;
            (*reached)[next].has_fields |= (*reached)[rule].has_fields;
            begun.push_back(next);
        }
    }
}

}  // namespace

rule_t *rule_found(std::string_view name) {
    return get_rule_by_name(std::string(name).c_str());
}

std::vector<named_t> names_of(std::string list) {
    std::vector<named_t> names;
    visit_rule_list(list.data(), [&](const char *name, rule_t *rule) {
        names.push_back({name, rule});
    });
    return names;
}

reached_t reached_rules(const site_t &site) {
    const config_key_t &key = *find_key(section_kind_t::PAGER, "ack_when_done");
    const config_key_t &follow = *find_key(section_kind_t::PAGER, "follow_calls");
    reached_t reached;
    for (const site_line_t &line : site.lines) {
        const file_section_t &section = *line.section;
        const bool acknowledges = section.number(key) != 0;
        const bool is_followed = section.number(follow) != 0;
        for (const named_t &named : names_of(section.text("rules"))) {
            reach_t &reach = reached[named.rule];
            reach.acknowledges |= acknowledges;
            reach.has_fields |= parse_protocol(section.text("protocol")) != PROTOCOL_ASCII;
            reach.is_followed |= is_followed;
            reach.is_listed = true;
        }
        reach_t &reach = reached[rule_found(section.text("default_rule"))];
        reach.acknowledges |= acknowledges;
        reach.is_followed |= is_followed;
        reach.is_default = true;
    }
    reach_otherwise(&reached);
    return reached;
}

void name_checker_t::check(const named_t &named, const char *key) const {
    const int at = section_.line_of(key);
    if (named.rule == nullptr) {
        const char *kind = "name-finds-nothing";
        findings_->warn(at, kind, key, ": '", named.name, "' finds no rule and is passed over",
                        findings_->has_room(kind) ? hint_for(named.name) : "");
        return;
    }
    const std::string meant = lower_case(without_blanks(named.name));
    if (meant == named.rule->name) {
        return;
    }
    const auto own =
        std::find_if(site_.rules.begin(), site_.rules.end(),
                     [&](const site_rule_t &rule) { return rule.rule->name == meant; });
    const bool is_shorter = meant.size() > strlen(named.rule->name);
    const std::string why =
        text_of(", because ", is_shorter ? "that rule's name" : "it", " is the beginning of ",
                is_shorter ? "it" : "that rule's name");
    if (own == site_.rules.end()) {
        findings_->warn(at, "other-rule", key, ": there is no [", meant, "], so '", meant,
                        "' finds ", site_.place_of(named.rule), why);
    } else {
        findings_->warn(at, "other-rule", key, ": '", meant, "' finds ", site_.place_of(named.rule),
                        why, ", and not ", site_.place_of(own->rule),
                        ", which is behind it in the file");
    }
}

std::string name_checker_t::hint_for(const std::string &name) const {
    const std::string trimmed(without_blanks(name));
    if (trimmed != name && rule_found(trimmed) != nullptr) {
        return text_of("; the blank belongs to the name, without it it finds ",
                       site_.place_of(rule_found(trimmed)));
    }
    if (rule_t *rule = rule_found(text_of(RULE_PREFIX, trimmed));
        rule != nullptr && !trimmed.empty()) {
        return text_of("; did you mean ", rule->name, "?");
    }
    const bool is_whole = trimmed.starts_with(RULE_PREFIX);
    const std::string near =
        findings_->hint(trimmed.substr(is_whole ? RULE_PREFIX.size() : 0), [this] {
            std::vector<std::string> known;
            for (const site_rule_t &rule : site_.rules) {
                known.emplace_back(rule.rule->name + RULE_PREFIX.size());
            }
            return known;
        });
    return near.empty() ? "" : text_of("; did you mean ", RULE_PREFIX, near, "?");
}
