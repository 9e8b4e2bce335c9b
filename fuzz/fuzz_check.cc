// What vespercheck says of any configuration: it comes to an end, and the sections that it has found
// are the records that the daemon's load makes of the same file.

#include "vespercheck/checks.h"

#include "conf.h"
#include "conf_world.h"
#include "rule.h"
#include "vespercheck/json.h"

namespace {

constexpr size_t UNCUT = 200;  // longer names and texts are cut, and their keys not found

// As the daemon does: a thread for every name would take most of the time.
std::vector<host_t> ask_at_once(const std::vector<std::string> &names, double /*seconds*/) {
    std::vector<host_t> hosts;
    for (const std::string &name : names) {
        const hostent *found = gethostbyname(name.c_str());
        host_t host{name, found != nullptr && found->h_addrtype == AF_INET, true, "", {}};
        if (host.is_found) {
            memcpy(&host.address, found->h_addr_list[0], sizeof host.address);
        }
        hosts.push_back(host);
    }
    return hosts;
}

void clear_tables() {
    std::fill(std::begin(pagers), std::end(pagers), pager_t{});
    std::fill(std::begin(rules), std::end(rules), rule_t{});
    num_pagers = 0;
}

void require_same(const file_section_t &section, const pager_t &pager) {
    require(section.name.substr(0, sizeof pager.name - 1) == pager.name);
    if (section.name.size() < UNCUT) {
        require(section.text("host") == pager.host && section.text("rules") == pager.rules &&
                section.text("default_rule") == pager.default_rule &&
                section.text("spool_dir") == pager.spool_dir &&
                section.text("staging_dir") == pager.staging_dir);
    }
}

void require_same(const file_section_t &section, const rule_t &rule) {
    require(section.name.substr(0, sizeof rule.name - 1) == rule.name);
    if (section.name.size() < UNCUT) {
        require(section.text("context") == rule.context &&
                section.text("channel") == rule.channel &&
                parse_action(section.text("action")) == rule.action);
    }
}

// After the daemon's own load of the same file.
void require_same(const site_t &site, const summary_t &summary) {
    int served = 0;
    for (const site_line_t &line : site.lines) {
        if (line.pager != nullptr) {
            require(line.pager == &pagers[served++]);
            require_same(*line.section, *line.pager);
        }
    }
    require(served == num_pagers && summary == summarize(site.outline.logger()));
    for (const site_rule_t &rule : site.rules) {
        require_same(*rule.section, *rule.rule);
    }
    require(std::ssize(site.rules) == summary.num_rules);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    configuration = "[logger]\nlog_level = 0\n" + tamed(as_text(data, size));
    clear_tables();
    site_t site;
    findings_t findings;
    load_site_text(PATH, configuration, ask_at_once, &site, &findings);
    check_site(site, &findings);
    const summary_t summary = summarize(site.outline.logger());
    require(!report_json(PATH, findings.sorted(), true, summary).empty());
    require(!summary_text(summary).empty());
    for (const site_line_t &line : site.lines) {
        if (line.pager != nullptr) {
            const record_texts_t record = {"4711", "1", "3", "2", "10"};
            require(!trial_text(try_message(*line.pager, "FIRE ZONE 3", record)).empty());
        }
    }
    clear_tables();
    free_confvals();
    require(load_conf(PATH) == 0);
    require_same(site, summary);
    return 0;
}
