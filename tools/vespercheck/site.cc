#include "site.h"

#include <netdb.h>

#include <filesystem>
#include <map>
#include <set>

#include "clock.h"
#include "conf.h"
#include "files.h"
#include "instance.h"
#include "logger.h"

namespace {

constexpr double MICROSECONDS = 1e6;

// The searches for hosts. The loader makes one for every pager that it comes to.
struct searches_t {
    host_asker_t ask = take_hosts;
    int64_t began = 0;
    std::vector<host_t> made;
    std::map<std::string, host_t, std::less<>> known;
};
searches_t searches;

// One limit is for all of them.
void learn(const std::vector<std::string> &names) {
    const double passed = static_cast<double>(microseconds_passed() - searches.began);
    for (host_t &host : searches.ask(names, HOSTS_LIMIT_SECONDS - passed / MICROSECONDS)) {
        searches.known[host.name] = std::move(host);
    }
}

hostent *find_host_once(const char *name) {
    static in_addr address;
    static char *addresses[] = {reinterpret_cast<char *>(&address), nullptr};
    static hostent answer{nullptr, nullptr, AF_INET, sizeof address, addresses};
    if (!searches.known.contains(name)) {
        learn({name});
    }
    const host_t &host = searches.made.emplace_back(searches.known.find(name)->second);
    address = host.address;
    return host.is_found ? &answer : nullptr;
}

// Goes through the sections as the loader did.
void relate(site_t *site) {
    size_t searched = 0;
    int served = 0;
    for (const file_section_t &section : site->outline.sections) {
        const bool is_pager = section.kind == section_kind_t::PAGER;
        if (!is_pager && section.kind != section_kind_t::RULE) {
            continue;
        }
        if (served == MAX_PAGERS || site->rules.size() == MAX_RULES) {
            site->unread.push_back(&section);
            continue;
        }
        site->last_read = &section;
        if (!is_pager) {
            site->rules.push_back({&section, &rules[site->rules.size()]});
        } else if (searched < searches.made.size()) {
            const host_t &host = searches.made[searched++];
            site->lines.push_back({&section, host.is_found ? &pagers[served] : nullptr, host});
            served += host.is_found ? 1 : 0;
        }
    }
}

}  // namespace

const file_section_t *site_t::section_of(const rule_t *rule) const {
    const auto slot = static_cast<size_t>(rule - ::rules);
    return slot < rules.size() ? rules[slot].section : nullptr;
}

std::string site_t::place_of(const rule_t *rule) const {
    const file_section_t *section = section_of(rule);
    return text_of(rule->name, " (line ", section != nullptr ? section->line : 0, ")");
}

std::vector<std::string> hosts_of(const outline_t &outline) {
    std::set<std::string> seen;
    std::vector<std::string> names;
    int left = MAX_RULES;
    for (const file_section_t &section : outline.sections) {
        left -= section.kind == section_kind_t::RULE ? 1 : 0;
        if (left == 0) {
            break;
        }
        if (const std::string name = section.text("host");
            section.kind == section_kind_t::PAGER && seen.insert(name).second) {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<std::string> configurations_beside(const std::string &path) {
    namespace fs = std::filesystem;
    std::error_code error;
    std::vector<std::string> others = {config_path_of("")};
    for (const std::string &name : names_in("/etc/quillet")) {
        if (!instance_of_config("/etc/quillet/" + name).empty()) {
            others.push_back("/etc/quillet/" + name);
        }
    }
    const auto is_asked = [&](const std::string &other) {
        return fs::equivalent(other, path, error);
    };
    return std::erase_if(others, is_asked) > 0 ? others : std::vector<std::string>();
}

int load_site(const char *path, host_asker_t ask, site_t *site, findings_t *findings) {
    std::string text;
    if (read_configuration(path, &text) != 0) {
        return -1;
    }
    load_site_text(path, text, ask, site, findings);
    return 0;
}

void load_site_text(const char *path, std::string_view text, host_asker_t ask, site_t *site,
                    findings_t *findings) {
    logger_init("", 0, 0, 1);
    site->path = path;
    outline_text(text, &site->outline, findings);
    searches = {ask, microseconds_passed(), {}, {}};
    learn(hosts_of(site->outline));
    const host_finder_t finder = find_host;
    find_host = find_host_once;
    load_logger_settings(site->outline.dict.get());
    load_tables(site->outline.dict.get());
    find_host = finder;
    relate(site);
}
