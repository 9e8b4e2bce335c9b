// The names by which lines and rules refer to rules, and the rules that are reached by them.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "findings.h"
#include "site.h"

// What a name in a list, a default rule or an otherwise finds.
struct named_t {
    std::string name;
    rule_t *rule;  // null: nothing
};

// Looks a name up as the daemon would.
rule_t *rule_found(std::string_view name);
std::vector<named_t> names_of(std::string list);

// What the lines that reach a rule are like.
struct reach_t {
    bool acknowledges = false;  // one of them has ack_when_done
    bool is_listed = false;     // in the rules of one
    bool is_default = false;    // the default rule of one
    bool has_fields = false;    // by one that is no ASCII line
    bool is_passed_on = false;  // the otherwise of another rule
    bool is_followed = false;   // by one that has follow_calls
};
using reached_t = std::map<const rule_t *, reach_t>;

// By rule lists, default rules, and from those by `otherwise`.
reached_t reached_rules(const site_t &site);

// Judges the names of one section.
class name_checker_t {
  public:
    name_checker_t(const site_t &site, const file_section_t &section, findings_t *findings)
        : site_(site), section_(section), findings_(findings) {}

    // That a name finds nothing, or another rule than the one that has it.
    void check(const named_t &named, const char *key) const;
    // What would have been found.
    std::string hint_for(const std::string &name) const;

  private:
    const site_t &site_;
    const file_section_t &section_;
    findings_t *findings_;
};
