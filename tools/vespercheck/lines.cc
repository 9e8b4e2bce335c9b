#include <arpa/inet.h>
#include <strings.h>

#include "charset.h"
#include "checks.h"

namespace {

void check_host(const site_line_t &line, findings_t *findings) {
    if (line.pager != nullptr) {
        return;
    }
    const int at = line.section->line_of("host");
    if (line.host.name.empty()) {
        findings->error(at, "host", "[", line.section->name,
                        "] is taken for a pager and has no host: it is left out");
    } else {
        findings->error(at, "host", "host ", line.host.name, " does not resolve (",
                        line.host.reason, "): the line is left out until a reload finds it");
    }
}

void check_charset(const file_section_t &section, findings_t *findings) {
    const std::string name = section.text("charset");
    if (!charset_t().open(name.c_str())) {
        findings->error(section.line_of("charset"), "charset", "unknown charset ", name,
                        ": messages are not converted (iconv -l lists those that are known)");
    }
}

void check_spool(const site_line_t &line, findings_t *findings) {
    const file_section_t &section = *line.section;
    const std::string spool_dir = section.text("spool_dir");
    if (!line.is_complete()) {
        return;
    }
    if (spool_dir == "/tmp/" || spool_dir == "/tmp") {
        findings->warn(section.line_of("spool_dir"), "spool-dir", "the spool_dir of [",
                       section.name,
                       "] is /tmp/: no PBX looks there, and the service has a /tmp "
                       "of its own");
    }
}

// Of two lines that are served.
bool is_same_port(const pager_t &a, const pager_t &b) {
    return a.listen != 0 && b.listen != 0 && a.port == b.port &&
           (a.listen_address == b.listen_address || a.listen_address == 0 || b.listen_address == 0);
}

bool is_same_converter(const site_line_t &a, const site_line_t &b) {
    if (a.pager->port != b.pager->port || a.pager->listen != 0 || b.pager->listen != 0) {
        return false;
    }
    const bool is_known = a.host.is_asked && b.host.is_asked;
    return is_known ? a.pager->sin.sin_addr.s_addr == b.pager->sin.sin_addr.s_addr
                    : strcasecmp(a.pager->host, b.pager->host) == 0;
}

void check_converter(const site_line_t &line, const std::vector<const site_line_t *> &before,
                     findings_t *findings) {
    for (const site_line_t *other : before) {
        if (is_same_port(*line.pager, *other->pager)) {
            findings->error(line.section->line_of("port"), "same-port", "[", line.section->name,
                            "] listens on the port of [", other->section->name, "] (line ",
                            other->section->line, "): only one of them can have it");
            return;
        }
        if (is_same_converter(line, *other)) {
            findings->warn(line.section->line_of("host"), "same-converter", "[", line.section->name,
                           "] connects to the same host and port as [", other->section->name,
                           "] (line ", other->section->line,
                           "): a converter serves one of them, or both get half of the calls");
            return;
        }
    }
}

// Whatever an ESPA line fails at makes it an ASCII line.
void check_recovery(const site_line_t &line, findings_t *findings) {
    if (line.pager != nullptr && line.pager->protocol == PROTOCOL_ESPA &&
        line.pager->recover_link == 0 && line.pager->espa_address == '\0') {
        findings->note(line.section->line_of("recover_link"), "no-recovery", "[",
                       line.section->name,
                       "] becomes an ASCII line when its connection fails, until a reload: "
                       "recover_link = yes keeps it an ESPA line");
    }
}

// What a station of a line makes nothing of, and what makes a station of none.
void check_station(const site_line_t &line, findings_t *findings) {
    const file_section_t &section = *line.section;
    const auto warn = [&](const char *key, const auto &...parts) {
        findings->warn(section.line_of(key), "station", key, ": ", parts...);
    };
    if (line.pager == nullptr) {
        return;
    }
    const bool is_station = line.pager->espa_address != '\0';
    if (section.find("espa_address") != nullptr && line.pager->protocol == PROTOCOL_ASCII) {
        warn("espa_address", "[", section.name, "] is an ASCII line, which has no addresses");
    } else if (is_station && line.pager->espa_address == line.pager->espa_control) {
        warn("espa_address", "[", section.name, "] has the address of its control station, ",
             line.pager->espa_control, ": it is never addressed");
    } else if (is_station && line.pager->espa_poll != 0) {
        warn("espa_poll", "means nothing beside espa_address");
    } else if (!is_station && section.find("espa_control") != nullptr) {
        warn("espa_control", "means nothing without espa_address");
    }
}

// What a line that waits for its paging system can be told in vain.
void check_listening(const site_line_t &line, findings_t *findings) {
    constexpr int PRIVILEGED_PORTS = 1024;
    const file_section_t &section = *line.section;
    const file_entry_t *address = section.find("listen_address");
    in_addr parsed{};
    if (line.pager == nullptr) {
        return;
    }
    if (line.pager->listen == 0 && address != nullptr) {
        findings->warn(address->line, "listen",
                       "listen_address means nothing without listen = yes");
    } else if (address != nullptr && !address->value.empty() &&
               inet_pton(AF_INET, address->value.c_str(), &parsed) != 1) {
        findings->error(address->line, "listen", "listen_address = ", address->value,
                        " is no IPv4 address: [", section.name, "] listens on all");
    }
    const auto port = static_cast<uint16_t>(line.pager->port);
    if (line.pager->listen != 0 && port < PRIVILEGED_PORTS) {
        findings->error(section.line_of("port"), "listen", "[", section.name, "] listens on port ",
                        port, ", which is for root alone: take one from 1024 on");
    }
}

}  // namespace

void check_site(const site_t &site, findings_t *findings) {
    check_keys(site, findings);
    check_lines(site, findings);
    check_log_level(site, findings);
    check_neighbours(site, findings);
    check_rules(site, findings);
    check_following(site, findings);
    check_patterns(site, findings);
    check_templates(site, findings);
    check_files(site, findings);
}

void check_lines(const site_t &site, findings_t *findings) {
    std::vector<const site_line_t *> served;
    for (const site_line_t &line : site.lines) {
        check_host(line, findings);
        if (line.pager != nullptr) {
            check_converter(line, served, findings);
            served.push_back(&line);
        }
        check_recovery(line, findings);
        check_station(line, findings);
        check_listening(line, findings);
        check_charset(*line.section, findings);
        check_spool(line, findings);
    }
    for (const file_section_t *section : site.unread) {
        const bool is_pager = site.last_read->kind == section_kind_t::PAGER;
        findings->error(section->line, "not-read", "[", section->name, "] is not read: [",
                        site.last_read->name, "] (line ", site.last_read->line, ") is the ",
                        is_pager ? "16th pager" : "256th rule", " and ends the reading");
    }
}
