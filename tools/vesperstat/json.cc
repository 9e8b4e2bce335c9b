#include "json.h"

#include <nlohmann/json.hpp>

namespace {

const char *level_name(level_t level) {
    return LEVELS[static_cast<size_t>(level)];
}

using json_t = nlohmann::ordered_json;

json_t time_or_null(double time) {
    return time > 0 ? json_t(time) : json_t(nullptr);
}

json_t problems_json(const report_t &report, const std::string &line) {
    json_t problems = json_t::array();
    for (const problem_t &problem : report.problems) {
        if (problem.line == line) {
            problems.push_back({{"level", level_name(problem.level)},
                                {"kind", problem.kind},
                                {"seconds", problem.seconds},
                                {"text", problem.words}});
        }
    }
    return problems;
}

json_t tallies_json(const std::vector<tally_t> &tallies) {
    json_t object = json_t::object();
    for (const tally_t &tally : tallies) {
        object[tally.what][tally.result] = tally.count;
    }
    return object;
}

json_t station_json(const line_status_t &line) {
    return line.address.empty() ? json_t(nullptr)
                                : json_t{{"address", line.address}, {"control", line.control}};
}

json_t requests_json(const line_status_t &line) {
    json_t object = json_t::object();
    for (const tally_t &tally : line.requests) {
        object[tally.what] = tally.count;
    }
    return object;
}

// Of calls that are followed.
json_t calls_json(const line_status_t &line) {
    json_t object = {{"open", line.calls_open}};
    for (const tally_t &tally : line.calls) {
        object[tally.what] = tally.count;
    }
    object["undelivered"] = json_t::array();
    for (const undelivered_t &message : line.undelivered) {
        object["undelivered"].push_back(
            {{"call", message.call}, {"text", message.text}, {"time", message.time}});
    }
    return object;
}

json_t line_json(const report_t &report, const line_status_t &line) {
    return {{"line", line.line},
            {"host", line.host},
            {"port", line.port},
            {"level", level_name(worst_level(report.problems, &line.line))},
            {"problems", problems_json(report, line.line)},
            {"state", LINE_STATES[static_cast<size_t>(line.state)]},
            {"state_since", line.state_since},
            {"protocol", line.protocol},
            {"configured", line.configured},
            {"protocol_since", time_or_null(line.protocol_since)},
            {"connects", line.connects},
            {"received_bytes", line.received_bytes},
            {"silence_seconds", line.silence_seconds},
            {"noise_bytes", line.noise_bytes},
            {"station", station_json(line)},
            {"requests", requests_json(line)},
            {"polls", line.polls},
            {"packets", line.packets},
            {"check_errors", line.check_errors},
            {"messages", line.messages},
            {"unmatched", line.unmatched},
            {"last_message", time_or_null(line.last_message)},
            {"actions", tallies_json(line.actions)},
            {"alarms", tallies_json(line.alarms)},
            {"calls", calls_json(line)}};
}

json_t instance_json(const report_t &report) {
    const status_t &status = report.status;
    json_t lines = json_t::array();
    for (const line_status_t &line : status.lines) {
        lines.push_back(line_json(report, line));
    }
    return {{"file", report.file},
            {"level", level_name(worst_level(report.problems))},
            {"problems", problems_json(report, "")},
            {"up", status.is_up},
            {"version", status.version},
            {"start", time_or_null(status.start)},
            {"written", time_or_null(status.written)},
            {"load", time_or_null(status.load)},
            {"reloads", status.reloads},
            {"lines", std::move(lines)},
            {"load_success", status.is_load_whole}};
}

}  // namespace

std::string report_json(const std::vector<report_t> &reports, double now) {
    json_t instances = json_t::array();
    for (const report_t &report : reports) {
        instances.push_back(instance_json(report));
    }
    const json_t object = {{"time", now},
                           {"level", level_name(worst_level(reports))},
                           {"instances", std::move(instances)}};
    return object.dump(-1, ' ', true, json_t::error_handler_t::replace) + "\n";
}
