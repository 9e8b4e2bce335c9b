// Selection of the rule for a message.
#pragma once

#include <cstring>

#include "tables.h"

// Finds a rule by name, ignoring case. A rule is found when its name and `name` are equal over the
// length of the shorter one, so "rule_f" finds rule_fire and "rule_fire2" finds rule_fire; of
// several the earliest in the table is returned. Returns null for an empty name or when there is
// none.
rule_t *get_rule_by_name(const char *name) noexcept;

// Copies the rule that a name finds, untorn by a reload. Returns whether there is one.
bool find_rule(const char *name, rule_t *rule) noexcept;

// Calls `visit` with every name of a rule list, in its order, and the rule that the name finds or
// null.
//   list  the names, separated by any number of ':', ',' and ';'; written over
template <typename visitor_t>
void visit_rule_list(char *list, visitor_t visit) {
    constexpr const char *SEPARATORS = ":,;";
    char *rest = nullptr;
    for (const char *name = strtok_r(list, SEPARATORS, &rest); name != nullptr;
         name = strtok_r(nullptr, SEPARATORS, &rest)) {
        visit(name, get_rule_by_name(name));
    }
}

// The first of a rule's conditions that the fields of a record do not meet, as a call_field_t; -1 when
// they meet all of them.
int unmet_condition(const rule_t &rule, const call_fields_t &fields) noexcept;

// Chooses the rule of the pager's rule list whose last match in `message` is longest, the earlier
// of two that tie, among those whose conditions are met; when no listed rule matches, the pager's
// default rule, which is not tried against anything. A null message counts as the empty one, which no
// listed rule matches. Returns null when the default rule is not found either.
rule_t *select_rule(const pager_t *pager, const char *message,
                    const call_fields_t &fields = {}) noexcept;

// Copies the rule that select_rule() chooses to `rule`, untorn by a reload. Returns whether there
// is one.
bool choose_rule(const pager_t *pager, const char *message, rule_t *rule,
                 const call_fields_t &fields = {}) noexcept;
