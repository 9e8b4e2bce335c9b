#include "json.h"

#include <nlohmann/json.hpp>

namespace {

using json_t = nlohmann::ordered_json;

constexpr int INDENT = 2;

std::string written(const json_t &object) {
    return object.dump(INDENT, ' ', true, json_t::error_handler_t::replace) + "\n";
}

json_t text_or_null(const std::string &text) {
    return text.empty() ? json_t(nullptr) : json_t(text);
}

json_t as_json(const rule_summary_t &rule) {
    return {{"name", rule.name}, {"action", rule.action}};
}

json_t as_json(const line_summary_t &line) {
    json_t object = {{"name", line.name}, {"host", line.host}};
    object["address"] = text_or_null(line.address);
    object["port"] = line.port;
    object["protocol"] = line.protocol;
    object["listens"] = line.listens;
    object["rules"] = json_t::array();
    for (const rule_summary_t &rule : line.rules) {
        object["rules"].push_back(as_json(rule));
    }
    object["default_rule"] = line.default_rule ? as_json(*line.default_rule) : json_t(nullptr);
    return object;
}

json_t as_json(const tried_rule_t &tried) {
    json_t object = {{"listed", tried.listed}};
    object["rule"] = text_or_null(tried.name);
    object["index"] = tried.index;
    object["groups"] = tried.groups;
    if (!tried.unmet.empty()) {
        object["unmet"] = tried.unmet;
    }
    return object;
}

json_t as_json(const trial_t &trial) {
    json_t object = {{"line", trial.line}, {"tried", json_t::array()}};
    for (const tried_rule_t &tried : trial.tried) {
        object["tried"].push_back(as_json(tried));
    }
    object["selected"] = text_or_null(trial.selected);
    object["why"] = trial.why;
    if (trial.selected.empty()) {
        return object;
    }
    object["action"] = trial.action;
    object["values"] = json_t::object();
    for (const auto &[name, value] : trial.values) {
        object["values"].emplace(name, value);
    }
    if (trial.action == "call") {
        object["call_file"] = {
            {"path", trial.file}, {"content", trial.text}, {"is_written", trial.is_done}};
        if (trial.is_followed) {
            object["otherwise"] = json_t::array();
            for (const rule_summary_t &rule : trial.chain) {
                object["otherwise"].push_back(as_json(rule));
            }
        }
    } else if (trial.action == "script") {
        object["command"] = {{"line", trial.text}, {"is_run", trial.is_done}};
    }
    return object;
}

}  // namespace

std::string report_json(const std::string &path, const std::vector<finding_t> &findings,
                        bool files_are_judged, const summary_t &summary) {
    json_t object = {{"file", path}, {"findings", json_t::array()}};
    for (const finding_t &finding : findings) {
        object["findings"].push_back({{"line", finding.line},
                                      {"severity", severity_name(finding.severity)},
                                      {"kind", finding.kind},
                                      {"text", finding.text}});
    }
    object["files_judged"] = files_are_judged;
    json_t lines = json_t::array();
    for (const line_summary_t &line : summary.lines) {
        lines.push_back(as_json(line));
    }
    object["summary"] = {{"lines", lines},
                         {"rules", summary.num_rules},
                         {"log", summary.log},
                         {"log_level", summary.log_level},
                         {"journal", text_or_null(summary.journal)},
                         {"status", text_or_null(summary.status)}};
    return written(object);
}

std::string trials_json(const std::string &path, const std::string &message,
                        const record_texts_t &record, const std::vector<trial_t> &trials) {
    json_t object = {{"file", path}, {"message", message}, {"address", record[0]}};
    const char *names[CALL_FIELDS] = {"address", "priority", "type", "beep", "transmissions"};
    for (size_t i = 1; i < CALL_FIELDS; i++) {
        if (!record[i].empty()) {
            object[names[i]] = record[i];
        }
    }
    object["lines"] = json_t::array();
    for (const trial_t &trial : trials) {
        object["lines"].push_back(as_json(trial));
    }
    return written(object);
}
