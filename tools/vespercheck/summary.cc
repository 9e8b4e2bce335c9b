#include "summary.h"

#include <arpa/inet.h>

#include "conf.h"
#include "findings.h"
#include "printable.h"
#include "rule.h"

namespace {

rule_summary_t summarize(const rule_t &rule) {
    return {rule.name, action_name(rule.action)};
}

line_summary_t summarize(const pager_t &pager) {
    line_summary_t line;
    line.name = pager.name;
    line.host = pager.host;
    line.address = pager.sin.sin_addr.s_addr != 0 ? inet_ntoa(pager.sin.sin_addr) : "";
    line.port = ntohs(pager.sin.sin_port);
    line.protocol = pager.protocol == PROTOCOL_ASCII ? "ascii" : "espa";
    line.listens = pager.listen != 0;
    std::string list(pager.rules);
    visit_rule_list(list.data(), [&](const char * /*name*/, const rule_t *rule) {
        if (rule != nullptr) {
            line.rules.push_back(summarize(*rule));
        }
    });
    if (const rule_t *rule = get_rule_by_name(pager.default_rule)) {
        line.default_rule = summarize(*rule);
    }
    return line;
}

std::string rule_text(const rule_summary_t &rule) {
    return text_of(printable(rule.name), " (", rule.action, ")");
}

std::string line_text(const line_summary_t &line) {
    std::string text = text_of("  ", printable(line.name), ": ", printable(line.host));
    if (!line.address.empty() && line.address != line.host) {
        text += text_of(" (", line.address, ")");
    }
    text += text_of(line.listens ? " connects to port " : " port ", line.port,
                    line.protocol == "ascii" ? ", ASCII lines" : ", ESPA 4.4.4", "\n");
    int number = 0;
    for (const rule_summary_t &rule : line.rules) {
        text += text_of("    ", ++number, ". ", rule_text(rule), "\n");
    }
    const std::string otherwise =
        line.default_rule ? rule_text(*line.default_rule) : "messages are dropped";
    return text + text_of("    otherwise ", otherwise, "\n");
}

}  // namespace

const char *action_name(int action) noexcept {
    if (action == CALL) {
        return "call";
    }
    return action == SCRIPT ? "script" : "skip";
}

summary_t summarize(const file_section_t &logger) {
    summary_t summary{{},
                      0,
                      logtype == 1 ? "syslog" : logfile,
                      loglevel,
                      logger.text("journal_file"),
                      logger.text("status_file")};
    for (int i = 0; i < num_pagers; i++) {
        summary.lines.push_back(summarize(pagers[i]));
    }
    for (const rule_t &rule : rules) {
        summary.num_rules += rule.name[0] != '\0' ? 1 : 0;
    }
    return summary;
}

std::string summary_text(const summary_t &summary) {
    std::string text = summary.lines.empty() ? "No line would be served.\n" : "Lines:\n";
    for (const line_summary_t &line : summary.lines) {
        text += line_text(line);
    }
    return text + text_of("Log: ", printable(summary.log), ", level ", summary.log_level, "\n");
}
