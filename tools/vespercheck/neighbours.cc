#include <arpa/inet.h>
#include <strings.h>

#include "checks.h"

namespace {

// A line as the configuration of another daemon has it.
struct converter_t {
    std::string file;
    std::string section;
    int line;
    std::string host;
    uint16_t port;
    bool listens;
};

void add_converters(const std::string &path, std::vector<converter_t> *converters) {
    const config_key_t &port = *find_key(section_kind_t::PAGER, "port");
    const config_key_t &listen = *find_key(section_kind_t::PAGER, "listen");
    outline_t outline;
    findings_t of_that_file;
    std::string text;
    if (read_configuration(path.c_str(), &text) != 0) {
        return;
    }
    outline_text(text, &outline, &of_that_file);
    for (const file_section_t &section : outline.sections) {
        if (section.kind == section_kind_t::PAGER && !section.text("host").empty()) {
            converters->push_back({path, section.name, section.line, section.text("host"),
                                   static_cast<uint16_t>(section.number(port)),
                                   section.number(listen) != 0});
        }
    }
}

// Names are compared as names: nobody is asked for another daemon's hosts.
bool serves(const pager_t &pager, const converter_t &converter) {
    in_addr address{};
    return pager.listen == 0 && !converter.listens &&
           static_cast<uint16_t>(pager.port) == converter.port &&
           (strcasecmp(pager.host, converter.host.c_str()) == 0 ||
            (inet_aton(converter.host.c_str(), &address) != 0 &&
             address.s_addr == pager.sin.sin_addr.s_addr));
}

// Addresses that two daemons listen on are not compared: mostly it is all of them.
bool shares_port(const pager_t &pager, const converter_t &converter) {
    return pager.listen != 0 && converter.listens &&
           static_cast<uint16_t>(pager.port) == converter.port;
}

}  // namespace

void check_neighbours(const site_t &site, findings_t *findings) {
    std::vector<converter_t> converters;
    for (const std::string &path : site.neighbours) {
        add_converters(path, &converters);
    }
    for (const site_line_t &line : site.lines) {
        for (const converter_t &converter : converters) {
            if (line.pager != nullptr && shares_port(*line.pager, converter)) {
                findings->warn(line.section->line_of("port"), "same-port", "[", line.section->name,
                               "] listens on the port of [", converter.section, "] of ",
                               converter.file, " (line ", converter.line,
                               "): only one of them can have it");
            } else if (line.pager != nullptr && serves(*line.pager, converter)) {
                findings->warn(line.section->line_of("host"), "same-converter", "[",
                               line.section->name, "] connects to the same host and port as [",
                               converter.section, "] of ", converter.file, " (line ",
                               converter.line,
                               "): a converter serves one of them, or both get half of the calls");
            }
        }
    }
}
