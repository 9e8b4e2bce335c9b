#include "status_file.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <utility>

#include "files.h"
#include "prom_text.h"

namespace {

// Of a line's actions, of its alarms and so on. So many values have a sum without overflow.
constexpr size_t MAX_TALLIES = 64;

constexpr std::string_view PREFIX = "vesperd_";
constexpr std::string_view LINE_PREFIX = "line_";

using metric_t = std::string_view;

constexpr std::array<std::pair<metric_t, double status_t::*>, 3> TIMES = {
    {{"start_time_seconds", &status_t::start},
     {"status_time_seconds", &status_t::written},
     {"load_time_seconds", &status_t::load}}};

constexpr std::array<std::pair<metric_t, double line_status_t::*>, 3> LINE_TIMES = {
    {{"state_since_seconds", &line_status_t::state_since},
     {"protocol_since_seconds", &line_status_t::protocol_since},
     {"last_message_time_seconds", &line_status_t::last_message}}};

constexpr std::array<std::pair<metric_t, int64_t line_status_t::*>, 10> LINE_COUNTERS = {
    {{"connects_total", &line_status_t::connects},
     {"received_bytes_total", &line_status_t::received_bytes},
     {"silence_seconds_total", &line_status_t::silence_seconds},
     {"noise_bytes_total", &line_status_t::noise_bytes},
     {"calls_open", &line_status_t::calls_open},
     {"polls_total", &line_status_t::polls},
     {"packets_total", &line_status_t::packets},
     {"check_errors_total", &line_status_t::check_errors},
     {"messages_total", &line_status_t::messages},
     {"unmatched_total", &line_status_t::unmatched}}};

// Stores a value where the table says; false when the metric is not in the table.
template <typename record_t, typename value_t, size_t N>
bool store(const std::array<std::pair<metric_t, value_t record_t::*>, N> &table, metric_t metric,
           double value, record_t *record) {
    for (const auto &[name, member] : table) {
        if (name == metric) {
            record->*member = static_cast<value_t>(value);
            return true;
        }
    }
    return false;
}

line_status_t *find_line(std::string_view name, status_t *status) {
    const auto found = std::find_if(status->lines.begin(), status->lines.end(),
                                    [&](const line_status_t &line) { return line.line == name; });
    if (found != status->lines.end()) {
        return &*found;
    }
    line_status_t &line = status->lines.emplace_back();
    line.line = name;
    return &line;
}

void store_state(const sample_t &sample, line_status_t *line) {
    const auto state = std::find(LINE_STATES.begin(), LINE_STATES.end(), sample.label("state"));
    if (sample.value == 0 || state == LINE_STATES.end()) {
        return;
    }
    line->host = sample.label("host");
    line->port = sample.label("port");
    line->state = static_cast<line_state_t>(state - LINE_STATES.begin());
}

void store_line_sample(metric_t metric, const sample_t &sample, line_status_t *line) {
    const auto add = [&](const char *label, std::vector<tally_t> *tallies) {
        tallies->push_back({std::string(sample.label(label)), std::string(sample.label("result")),
                            static_cast<int64_t>(sample.value)});
    };
    if (metric == "state") {
        store_state(sample, line);
    } else if (metric == "protocol" && sample.value != 0) {
        line->protocol = sample.label("protocol");
        line->configured = sample.label("configured");
    } else if (metric == "station") {
        line->address = sample.label("address");
        line->control = sample.label("control");
    } else if (metric == "requests_total") {
        add("address", &line->requests);
    } else if (metric == "actions_total") {
        add("action", &line->actions);
    } else if (metric == "alarms_total") {
        add("event", &line->alarms);
    } else if (metric == "calls_total") {
        add("outcome", &line->calls);
    } else if (metric == "undelivered_time_seconds") {
        line->undelivered.push_back(
            {std::string(sample.label("call")), std::string(sample.label("text")), sample.value});
    } else if (!store(LINE_TIMES, metric, sample.value, line)) {
        store(LINE_COUNTERS, metric, sample.value, line);
    }
}

void store_sample(metric_t metric, const sample_t &sample, status_t *status) {
    if (metric.starts_with(LINE_PREFIX)) {
        store_line_sample(metric.substr(LINE_PREFIX.size()), sample,
                          find_line(sample.label("line"), status));
    } else if (metric == "up") {
        status->is_up = sample.value != 0;
    } else if (metric == "build_info") {
        status->version = sample.label("version");
    } else if (metric == "load_success") {
        status->is_load_whole = sample.value != 0;
    } else if (metric == "reloads_total") {
        status->reloads = static_cast<int64_t>(sample.value);
    } else {
        store(TIMES, metric, sample.value, status);
    }
}

bool is_too_long(const sample_t &sample) {
    return std::any_of(sample.labels.begin(), sample.labels.end(),
                       [](const auto &label) { return label.second.size() > MAX_LABEL_LENGTH; });
}

// Why no daemon writes this sample; null when one does.
const char *fault_of(const sample_t &sample) {
    // No value of the daemon is beyond what a double counts exactly.
    if (!(std::fabs(sample.value) < 9e15)) {
        return " has no value";
    }
    return is_too_long(sample) ? " has a label that is too long" : nullptr;
}

// Why no daemon has lines like these; null when one does.
const char *fault_of(const std::vector<line_status_t> &lines) {
    if (lines.size() > MAX_STATUS_LINES) {
        return "it tells of more than 64 lines";
    }
    for (const line_status_t &line : lines) {
        if (line.actions.size() > MAX_TALLIES || line.alarms.size() > MAX_TALLIES ||
            line.calls.size() > MAX_TALLIES || line.requests.size() > MAX_TALLIES ||
            line.undelivered.size() > MAX_TALLIES) {
            return "it tells of more than 64 actions, alarms, calls or addresses of a line";
        }
    }
    return nullptr;
}

bool is_whole(const line_status_t &line) {
    return !line.line.empty() && !line.port.empty() &&  // the port comes with the state
           !line.protocol.empty();
}

}  // namespace

bool read_status(const std::string &path, links_t links, status_t *status, std::string *error) {
    std::string text;
    const int flags = links == links_t::REFUSE ? O_NOFOLLOW : 0;
    if (read_whole(path.c_str(), flags, MAX_STATUS_SIZE, &text) != 0) {
        *error = file_fault(errno, MAX_STATUS_SIZE);
        return false;
    }
    return parse_status(text, status, error);
}

bool status_files_t::read(const std::string &path, links_t links, status_t *status,
                          std::string *error) {
    struct stat found {};
    const bool is_there =
        (links == links_t::REFUSE ? lstat(path.c_str(), &found) : stat(path.c_str(), &found)) == 0;
    const auto known = known_.find(path);
    if (is_there && known != known_.end() && known->second.device == found.st_dev &&
        known->second.inode == found.st_ino &&
        known->second.changed.tv_sec == found.st_ctim.tv_sec &&
        known->second.changed.tv_nsec == found.st_ctim.tv_nsec) {
        *status = known->second.status;
        return true;
    }
    if (known != known_.end()) {
        known_.erase(known);
    }
    if (!read_status(path, links, status, error)) {
        return false;
    }
    known_.emplace(path, known_t{found.st_dev, found.st_ino, found.st_ctim, *status});
    return true;
}

bool parse_status(std::string_view text, status_t *status, std::string *error) {
    std::vector<sample_t> samples;
    if (!parse_samples(text, &samples, error)) {
        return false;
    }
    for (const sample_t &sample : samples) {
        const metric_t metric = sample.metric;
        if (!metric.starts_with(PREFIX)) {
            continue;
        }
        if (const char *fault = fault_of(sample)) {
            *error = std::string(metric.substr(0, MAX_LABEL_LENGTH)) + fault;
            return false;
        }
        store_sample(metric.substr(PREFIX.size()), sample, status);
        if (const char *fault = fault_of(status->lines)) {
            *error = fault;
            return false;
        }
    }
    if (status->written <= 0 ||
        !std::all_of(status->lines.begin(), status->lines.end(), is_whole)) {
        *error = "not a whole status file of vesperd";
        return false;
    }
    return true;
}

int64_t sum_of(const std::vector<tally_t> &tallies, std::string_view result) noexcept {
    int64_t sum = 0;
    for (const tally_t &tally : tallies) {
        sum += tally.result == result ? tally.count : 0;
    }
    return sum;
}
