#include <algorithm>
#include <set>

#include "checks.h"
#include "rule_names.h"
#include "template.h"

namespace {

constexpr const char *KIND = "follow";
constexpr int USUAL_WAIT_SECONDS = 45;  // of Asterisk, for a call file that says nothing
constexpr int USUAL_RETRY_SECONDS = 300;

void check_line(const site_line_t &line, findings_t *findings) {
    const file_section_t &section = *line.section;
    const bool follows = section.number(*find_key(section_kind_t::PAGER, "follow_calls")) != 0;
    if (follows && section.text("staging_dir").empty()) {
        findings->error(section.line_of("follow_calls"), KIND,
                        "follow_calls needs a staging_dir: the calls of [", section.name,
                        "] are not followed");
    }
    const bool is_station = section.find("espa_address") != nullptr &&
                            parse_protocol(section.text("protocol")) != PROTOCOL_ASCII;
    for (const char *key : {"status_called", "status_answered", "status_unanswered"}) {
        if (section.find(key) != nullptr && (!follows || !is_station)) {
            findings->warn(section.line_of(key), KIND, key, " means nothing without ",
                           follows ? "espa_address" : "follow_calls = yes");
        }
    }
}

// How long the PBX may try, by what a rule says.
int64_t seconds_of_attempts(const rule_t &rule) {
    const int64_t wait = rule.wait_time >= 0 ? rule.wait_time : USUAL_WAIT_SECONDS;
    const int64_t pause = rule.retry_time >= 0 ? rule.retry_time : USUAL_RETRY_SECONDS;
    const int64_t retries = std::max(rule.max_retries, 0);
    return (retries + 1) * wait + retries * pause;
}

class rule_checker_t {
  public:
    rule_checker_t(const site_t &site, const site_rule_t &rule, findings_t *findings)
        : site_(site), section_(*rule.section), rule_(*rule.rule), findings_(findings) {}

    void check_use(bool is_followed) const {
        for (const char *key : {"confirm", "otherwise", "give_up"}) {
            if (section_.find(key) != nullptr && !is_followed) {
                findings_->warn(section_.line_of(key), KIND, key,
                                " has no effect: no line that reaches [", section_.name,
                                "] has follow_calls");
            }
        }
    }

    void check_times() const {
        const int64_t needed = seconds_of_attempts(rule_);
        if (rule_.give_up < needed) {
            findings_->warn(section_.line_of("give_up"), KIND, "give_up: a call of [",
                            section_.name, "] is given up after ", rule_.give_up,
                            " s, and the PBX tries for ", needed, " s");
        }
    }

    void check_name() const {
        const std::string text = section_.text("extension");
        if (rule_.quote != 0 || text.find_first_of("%$") == std::string::npos) {
            if (!is_name(text)) {
                warn_of_extension("");
            }
        } else {
            warn_of_extension("without quote = yes ");
        }
    }

    void check_otherwise() const {
        const std::string name = section_.text("otherwise");
        const rule_t *next = rule_found(name);
        const int at = section_.line_of("otherwise");
        if (name.empty()) {
            return;
        }
        if (next == nullptr) {
            const name_checker_t names(site_, section_, findings_);
            findings_->error(at, "no-rule", "otherwise: '", name,
                             "' finds no rule: what nobody answers is passed on to nobody",
                             names.hint_for(name));
            return;
        }
        name_checker_t(site_, section_, findings_).check({name, rule_found(name)}, "otherwise");
        if (next->action == SCRIPT && next->quote == 0) {
            findings_->error(at, KIND, "otherwise: ", site_.place_of(next),
                             " needs quote = yes: without it its command is not run");
        } else if (next->action == SKIP) {
            findings_->warn(at, KIND, "otherwise: ", site_.place_of(next),
                            " does nothing: what nobody answers is passed on to nobody");
        } else if (is_in_circle()) {
            findings_->note(at, KIND, "otherwise: [", section_.name,
                            "] comes round again, until a message has been passed on ten times");
        }
    }

  private:
    // Whether a template has no other characters of its own than a call file's name may have.
    static bool is_name(const std::string &text) {
        bool is_inside = false;
        return std::all_of(text.begin(), text.end(), [&](char c) {
            is_inside = c == '%' ? !is_inside : is_inside;
            return c == '%' || c == '$' || is_inside || is_name_character(c);
        });
    }
    void warn_of_extension(const char *when) const {
        findings_->warn(section_.line_of("extension"), KIND, "extension: ", when,
                        "a call whose extension has other than letters, digits and * + _ . - is "
                        "not followed");
    }
    bool is_in_circle() const {
        std::set<const rule_t *> seen;
        const rule_t *next = rule_found(rule_.otherwise);
        while (next != nullptr && next != &rule_ && next->action == CALL &&
               seen.insert(next).second) {
            next = rule_found(next->otherwise);
        }
        return next == &rule_;
    }

    const site_t &site_;
    const file_section_t &section_;
    const rule_t &rule_;
    findings_t *findings_;
};

}  // namespace

void check_following(const site_t &site, findings_t *findings) {
    for (const site_line_t &line : site.lines) {
        check_line(line, findings);
    }
    const reached_t reached = reached_rules(site);
    for (const site_rule_t &rule : site.rules) {
        const auto reach = reached.find(rule.rule);
        if (reach == reached.end() || rule.rule->action != CALL) {
            continue;
        }
        const rule_checker_t checker(site, rule, findings);
        checker.check_use(reach->second.is_followed);
        checker.check_otherwise();
        if (reach->second.is_followed) {
            checker.check_times();
            checker.check_name();
        }
    }
}
