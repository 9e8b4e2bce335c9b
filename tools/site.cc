#include "site.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>
#include <filesystem>
#include <map>

#include "clock.h"
#include "conf.h"
#include "files.h"
#include "instance.h"
#include "logger.h"

namespace {

constexpr double MICROSECONDS = 1e6;

// The searches for hosts. The loader makes one for every pager that it comes to.
struct searches_t {
    bool asks_names = true;
    std::vector<host_t> made;
    std::map<std::string, std::pair<host_t, in_addr>> known;
};
searches_t searches;

host_t search(const char *name, in_addr *address) {
    host_t host{name, true, true, "", 0};
    if (!searches.asks_names && name[0] != '\0') {
        host.is_asked = inet_aton(name, address) != 0;
        if (!host.is_asked) {
            *address = {};
        }
        return host;
    }
    const int64_t began = microseconds_passed();
    const hostent *found = gethostbyname(name);
    host.seconds = static_cast<double>(microseconds_passed() - began) / MICROSECONDS;
    host.is_found =
        found != nullptr && found->h_addrtype == AF_INET && found->h_addr_list[0] != nullptr;
    if (host.is_found) {
        memcpy(address, found->h_addr_list[0], sizeof *address);
    } else {
        host.reason = found != nullptr ? "it has no IPv4 address" : hstrerror(h_errno);
    }
    return host;
}

hostent *find_host_once(const char *name) {
    static in_addr address;
    static char *addresses[] = {reinterpret_cast<char *>(&address), nullptr};
    static hostent answer{nullptr, nullptr, AF_INET, sizeof address, addresses};
    const auto known = searches.known.find(name);
    if (known == searches.known.end()) {
        const host_t host = search(name, &address);
        searches.known[name] = {host, address};
        searches.made.push_back(host);
    } else {
        address = known->second.second;
        searches.made.push_back(known->second.first);
    }
    return searches.made.back().is_found ? &answer : nullptr;
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

int load_site(const char *path, bool asks_names, site_t *site, findings_t *findings) {
    logger_init("", 0, 0, 1);
    site->path = path;
    if (read_outline(path, &site->outline, findings) != 0) {
        return -1;
    }
    searches = {asks_names, {}, {}};
    const host_finder_t finder = find_host;
    find_host = find_host_once;
    load_logger_settings(site->outline.dict.get());
    load_tables(site->outline.dict.get());
    find_host = finder;
    relate(site);
    return 0;
}
