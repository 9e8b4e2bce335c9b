#include "rule.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

#include "logger.h"
#include "text.h"

namespace {

constexpr const char *NAME_SEPARATORS = ":,;";

}  // namespace

rule_t *get_rule_by_name(const char *name) noexcept {
    const size_t wanted = strlen(name);
    if (wanted == 0) {
        return nullptr;
    }
    for (rule_t &rule : rules) {
        const size_t length = strlen(rule.name);
        if (length > 0 && strncasecmp(rule.name, name, std::min(length, wanted)) == 0) {
            return &rule;
        }
    }
    return nullptr;
}

rule_t *select_rule(const pager_t *pager, const char *message) noexcept {
    const char *text = message != nullptr ? message : "";
    char list[sizeof pager->rules];
    copy_text(list, pager->rules);
    if (list[0] == '\0') {
        LOG(LEVEL_DEBUG, "No rules set up in pager '%s', using default rule\n", pager->name);
        return get_rule_by_name(pager->default_rule);
    }
    rule_t *selected = nullptr;
    int best = 0;
    char *rest = nullptr;
    for (const char *name = strtok_r(list, NAME_SEPARATORS, &rest); name != nullptr;
         name = strtok_r(nullptr, NAME_SEPARATORS, &rest)) {
        rule_t *rule = get_rule_by_name(name);
        const int index = rule != nullptr ? match_regex(&rule->pattern, text, nullptr, 0) : 0;
        if (index > best) {
            selected = rule;
            best = index;
        }
    }
    if (selected == nullptr) {
        return get_rule_by_name(pager->default_rule);
    }
    LOG(LEVEL_DEBUG, "For message '%s' selected rule '%s' with match index %d\n", text,
        selected->name, best);
    return selected;
}
