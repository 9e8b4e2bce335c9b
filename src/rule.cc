#include "rule.h"

#include "logger.h"
#include "roster.h"

namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Equal over the length of the shorter one. A list of 150 rules compares 11,000 names for a message.
bool is_same_name(const char *shared, const char *name) {
    for (char c = load_shared(*shared); c != '\0' && *name != '\0'; c = load_shared(*++shared)) {
        if (lower(c) != lower(*name++)) {
            return false;
        }
    }
    return true;
}

// How a rule came to be chosen.
struct choice_t {
    rule_t *rule;      // null: none
    int best;          // the match index, 0 for a default rule
    bool has_no_list;  // the pager lists no rules
};

int match_index(const rule_t *rule, const char *message, const call_fields_t &fields) {
    const bool is_candidate = rule != nullptr && unmet_condition(*rule, fields) < 0;
    return is_candidate ? match_regex(&rule->pattern, message, nullptr, 0) : 0;
}

void consider(rule_t *rule, const char *message, const call_fields_t &fields, choice_t *choice) {
    const int index = match_index(rule, message, fields);
    if (index > choice->best) {
        choice->rule = rule;
        choice->best = index;
    }
}

choice_t choose(const pager_t *pager, const char *message, const call_fields_t &fields) {
    text_copy_t list(pager->rules);
    choice_t choice{nullptr, 0, list.text[0] == '\0'};
    visit_rule_list(list.text, [&](const char * /*name*/, rule_t *rule) {
        consider(rule, message, fields, &choice);
    });
    if (choice.rule == nullptr) {
        choice.rule = get_rule_by_name(text_copy_t(pager->default_rule).text);
    }
    return choice;
}

// The same for a line that is dismissed.
choice_t choose(parting_rules_t *from, const char *message, const call_fields_t &fields) {
    choice_t choice{nullptr, 0, from->listed.empty()};
    for (rule_t &rule : from->listed) {
        consider(&rule, message, fields, &choice);
    }
    if (choice.rule == nullptr && from->fallback) {
        choice.rule = &*from->fallback;
    }
    return choice;
}

// Chooses a rule and, when `copy` is not null, copies it. Logs on behalf of select_rule().
rule_t *choose_and_log(const pager_t *pager, const char *message, const call_fields_t &fields,
                       rule_t *copy) {
    const char *text = message != nullptr ? message : "";
    choice_t choice{};
    read_tables([&] {
        parting_rules_t *parting = roster_parting_rules(pager);
        choice = parting == nullptr ? choose(pager, text, fields) : choose(parting, text, fields);
        if (copy != nullptr && choice.rule != nullptr) {
            copy_shared(copy, *choice.rule);
        }
    });
    if (choice.has_no_list) {
        LOG_AS(LEVEL_DEBUG, "select_rule", "No rules set up in pager '%s', using default rule\n",
               text_copy_t(pager->name).text);
    } else if (choice.best > 0) {
        LOG_AS(LEVEL_DEBUG, "select_rule",
               "For message '%s' selected rule '%s' with match index %d\n", text,
               text_copy_t(copy != nullptr ? copy->name : choice.rule->name).text, choice.best);
    }
    return choice.rule;
}

}  // namespace

rule_t *get_rule_by_name(const char *name) noexcept {
    if (name[0] == '\0') {
        return nullptr;
    }
    for (rule_t &rule : rules) {
        if (load_shared(rule.name[0]) != '\0' && is_same_name(rule.name, name)) {
            return &rule;
        }
    }
    return nullptr;
}

int unmet_condition(const rule_t &rule, const call_fields_t &fields) noexcept {
    for (int i = 0; i < CALL_FIELDS; i++) {
        const condition_t &condition = rule.conditions[i];
        if (load_shared(condition.is_given) != 0 &&
            match_regex(&condition.pattern, fields.texts[i], nullptr, 0) == 0) {
            return i;
        }
    }
    return -1;
}

rule_t *select_rule(const pager_t *pager, const char *message,
                    const call_fields_t &fields) noexcept {
    return choose_and_log(pager, message, fields, nullptr);
}

bool find_rule(const char *name, rule_t *rule) noexcept {
    bool is_found = false;
    read_tables([&] {
        const rule_t *found = get_rule_by_name(name);
        is_found = found != nullptr;
        if (is_found) {
            copy_shared(rule, *found);
        }
    });
    return is_found;
}

bool choose_rule(const pager_t *pager, const char *message, rule_t *rule,
                 const call_fields_t &fields) noexcept {
    return choose_and_log(pager, message, fields, rule) != nullptr;
}
