#include "status.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "alarm.h"
#include "clock.h"
#include "fd.h"
#include "instance.h"
#include "line_state.h"
#include "logger.h"
#include "stats.h"
#include "undelivered.h"
#include "utf8.h"

namespace {

constexpr int64_t REWRITE_MS = 15'000;
constexpr std::array<const char *, RULE_ACTIONS> action_names = {"skip", "call", "script"};
constexpr std::array<const char *, ALARM_RESULTS> result_names = {"raised", "limited", "suppressed",
                                                                  "disabled"};

// Known to the main thread alone.
struct {
    std::string file;
    int64_t started_ms = milliseconds_now();
    int64_t loaded_ms = 0;
    int loads = 0;
    bool is_load_whole = true;
    bool failed = false;  // has been logged for this load
    std::string content;  // of the file, without the time that it carries
    int64_t written_ms = 0;
} status;

// A line as it is shown.
struct shown_line_t {
    const line_stats_t *stats;
    std::string label;  // line="NAME"
    std::string where;  // host="HOST",port="PORT"
    bool is_ascii;
    bool is_configured_ascii;
    char address;  // zero: the line is no station
    char control;
};

std::string escaped(const std::string &value) {
    std::string text;
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            text += '\\';
        }
        text += c == '\n' ? "\\n" : std::string(1, c);
    }
    return text;
}

std::string label_value(const char *text) {
    return escaped(as_utf8(text));
}

// As much of a text as a label should have.
std::string beginning_of(const std::string &text) {
    constexpr size_t LIMIT = 128;
    const std::string whole = as_utf8(text);
    std::string_view left = whole;
    std::string beginning;
    while (!left.empty() && beginning.size() + utf8_length(left) <= LIMIT) {
        beginning += left.substr(0, utf8_length(left));
        left.remove_prefix(utf8_length(left));
    }
    return beginning;
}

// A reload can leave two records of one name; samples must not come twice.
std::string unique_label(const std::vector<shown_line_t> &lines, const char *name) {
    const std::string value = label_value(name);
    std::string label = "line=\"" + value + "\"";
    const auto is_taken = [&](const shown_line_t &line) { return line.label == label; };
    for (int number = 2; std::any_of(lines.begin(), lines.end(), is_taken); number++) {
        label = "line=\"" + value + "#" + std::to_string(number) + "\"";
    }
    return label;
}

std::vector<shown_line_t> shown_lines() {
    std::vector<shown_line_t> lines;
    for (size_t i = 0; i < line_stats.size(); i++) {
        if (!line_stats[i].is_served) {
            continue;
        }
        const pager_t &pager = pagers[i];
        const auto port = static_cast<uint16_t>(pager.port);
        lines.push_back(
            {&line_stats[i], unique_label(lines, pager.name),
             "host=\"" + label_value(pager.host) + "\",port=\"" + std::to_string(port) + "\"",
             load_shared(pager.protocol) == PROTOCOL_ASCII,
             pager.configured_protocol == PROTOCOL_ASCII, pager.espa_address, pager.espa_control});
    }
    return lines;
}

// The text in the making.
class exposition_t {
  public:
    void begin(const char *name, const char *type, const char *help) {
        name_ = std::string("vesperd_") + name;
        text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
    }
    //   suffix  of the name, for a summary's parts
    void sample(const std::string &labels, uint64_t value, const char *suffix = "") {
        append(labels, std::to_string(value), suffix);
    }
    void sample_seconds(const std::string &labels, int64_t milliseconds) {
        char value[32];
        snprintf(value, sizeof value, "%" PRId64 ".%03d", milliseconds / 1000,
                 static_cast<int>(milliseconds % 1000));
        append(labels, milliseconds != 0 ? value : "0");
    }
    std::string &text() { return text_; }

  private:
    void append(const std::string &labels, const std::string &value, const char *suffix = "") {
        const std::string all = labels + (labels.empty() ? daemon_ : "," + daemon_);
        const std::string &shown = daemon_.empty() ? labels : all;
        text_ += name_ + suffix + (shown.empty() ? "" : "{" + shown + "}") + " " + value + "\n";
    }

    // Tells the files of several instances apart in a monitoring system.
    std::string daemon_ = instance().empty() ? "" : "daemon=\"" + instance() + "\"";
    std::string name_;
    std::string text_;
};

using lines_t = std::vector<shown_line_t>;

void expose_states(exposition_t *out, const lines_t &lines) {
    out->begin("line_state", "gauge", "1 for the state that the line is in.");
    for (const shown_line_t &line : lines) {
        for (size_t state = 0; state < LINE_STATES.size(); state++) {
            out->sample(line.label + "," + line.where + ",state=\"" + LINE_STATES[state] + "\"",
                        static_cast<size_t>(line.stats->state.load()) == state);
        }
    }
    out->begin("line_state_since_seconds", "gauge", "When the line entered its state.");
    for (const shown_line_t &line : lines) {
        out->sample_seconds(line.label, line.stats->state_since_ms);
    }
    out->begin(
        "line_protocol", "gauge",
        "The protocol that the line speaks; another than the configured one after a failure.");
    for (const shown_line_t &line : lines) {
        const auto name = [](bool is_ascii) { return is_ascii ? "ascii" : "espa"; };
        out->sample(line.label + ",protocol=\"" + name(line.is_ascii) + "\",configured=\"" +
                        name(line.is_configured_ascii) + "\"",
                    1);
    }
    out->begin("line_protocol_since_seconds", "gauge", "Since when the line speaks it.");
    for (const shown_line_t &line : lines) {
        out->sample_seconds(line.label, line.stats->protocol_since_ms);
    }
}

void expose_counters(exposition_t *out, const lines_t &lines) {
    const struct {
        const char *name;
        const char *help;
        counter_t line_stats_t::*counter;
    } rows[] = {
        {"line_connects_total", "Connections made.", &line_stats_t::connects},
        {"line_received_bytes_total", "Bytes received.", &line_stats_t::received_bytes},
        {"line_silence_seconds_total",
         "How long connections brought nothing, without what is shorter than 15 seconds.",
         &line_stats_t::silence_seconds},
        {"line_polls_total", "Requests answered, that is an address and ENQ.",
         &line_stats_t::polls},
        {"line_packets_total", "Packets or lines received.", &line_stats_t::packets},
        {"line_check_errors_total", "Packets with a wrong block check character.",
         &line_stats_t::check_errors},
        {"line_messages_total", "Messages for which a rule was looked for.",
         &line_stats_t::messages},
        {"line_unmatched_total", "Messages without a rule.", &line_stats_t::unmatched},
    };
    for (const auto &row : rows) {
        out->begin(row.name, "counter", row.help);
        for (const shown_line_t &line : lines) {
            out->sample(line.label, (line.stats->*row.counter).get());
        }
    }
}

// Who is spoken to on a line: of the addresses those that have been heard.
void expose_requests(exposition_t *out, const lines_t &lines) {
    out->begin("line_noise_bytes_total", "counter",
               "Bytes that belong to nothing, on an ESPA line.");
    for (const shown_line_t &line : lines) {
        out->sample(line.label, line.stats->noise_bytes.get());
    }
    out->begin("line_requests_total", "counter", "Requests heard, by the address before the ENQ.");
    for (const shown_line_t &line : lines) {
        for (size_t address = 0; address < line.stats->requests.size(); address++) {
            if (const uint64_t count = line.stats->requests[address].get(); count > 0) {
                out->sample(line.label + ",address=\"" + std::to_string(address) + "\"", count);
            }
        }
    }
    out->begin("line_station", "gauge",
               "The station that a line with espa_address is, and its control station.");
    for (const shown_line_t &line : lines) {
        if (!line.is_configured_ascii && line.address != '\0') {
            out->sample(
                line.label + ",address=\"" + line.address + "\",control=\"" + line.control + "\"",
                1);
        }
    }
}

void expose_actions(exposition_t *out, const lines_t &lines) {
    out->begin("line_actions_total", "counter", "Actions of rules, for messages and alarms.");
    for (const shown_line_t &line : lines) {
        for (size_t action = 0; action < action_names.size(); action++) {
            for (const size_t ok : {size_t{1}, size_t{0}}) {
                out->sample(line.label + ",action=\"" + action_names[action] + "\",result=\"" +
                                (ok == 1 ? "ok" : "failed") + "\"",
                            line.stats->actions[action][ok].get());
            }
        }
    }
}

void expose_alarms(exposition_t *out, const lines_t &lines) {
    out->begin("line_alarms_total", "counter",
               "Alarms by the event itself, and what became of them.");
    for (const shown_line_t &line : lines) {
        for (size_t row = 0; row < ALARM_EVENTS; row++) {
            if (alarms[row].alarm == ALARM_MESSAGE) {
                continue;
            }
            for (size_t result = 0; result < result_names.size(); result++) {
                out->sample(line.label + ",event=\"" + alarms[row].name + "\",result=\"" +
                                result_names[result] + "\"",
                            line.stats->alarms[row][result].get());
            }
        }
    }
}

uint64_t calls_of(const shown_line_t &line, call_result_t result) {
    return line.stats->calls[static_cast<size_t>(result)].get();
}

void expose_calls(exposition_t *out, const lines_t &lines) {
    out->begin("line_calls_open", "gauge", "Calls that are followed and not done with.");
    for (const shown_line_t &line : lines) {
        out->sample(line.label, static_cast<uint64_t>(line.stats->calls_open.load()));
    }
    out->begin("line_calls_total", "counter", "Calls that were followed, by their outcome.");
    for (const shown_line_t &line : lines) {
        for (size_t i = 0; i < CALL_RESULTS; i++) {
            out->sample(line.label + ",outcome=\"" + CALL_RESULT_NAMES[i] + "\"",
                        line.stats->calls[i].get());
        }
    }
    out->begin("line_answer_seconds", "summary", "Until somebody answered.");
    for (const shown_line_t &line : lines) {
        const uint64_t answered =
            calls_of(line, call_result_t::ANSWERED) + calls_of(line, call_result_t::CONFIRMED);
        out->sample(line.label, line.stats->answer_seconds.get(), "_sum");
        out->sample(line.label, answered, "_count");
    }
}

void expose_undelivered(exposition_t *out, const lines_t &lines) {
    out->begin("line_undelivered_total", "counter", "Messages that nobody answered.");
    for (const shown_line_t &line : lines) {
        out->sample(line.label, line.stats->undelivered.get());
    }
    out->begin("line_undelivered_time_seconds", "gauge", "When nobody answered, for an hour.");
    const std::vector<undelivered_message_t> messages = recently_undelivered();
    for (const shown_line_t &line : lines) {
        for (const undelivered_message_t &message : messages) {
            if (&line_stats[message.line] == line.stats) {
                out->sample_seconds(line.label + ",call=\"" + label_value(message.call.c_str()) +
                                        "\",text=\"" + escaped(beginning_of(message.text)) + "\"",
                                    message.at_ms);
            }
        }
    }
}

// Everything but the time at which it is written.
std::string content_of(bool is_up) {
    exposition_t out;
    out.begin("up", "gauge", "1 while the daemon runs.");
    out.sample("", is_up);
    out.begin("build_info", "gauge", "The version.");
    out.sample("version=\"" VESPER_VERSION "\"", 1);
    out.begin("start_time_seconds", "gauge", "When the daemon started.");
    out.sample_seconds("", status.started_ms);
    out.begin("load_time_seconds", "gauge", "When the configuration was loaded.");
    out.sample_seconds("", status.loaded_ms);
    out.begin("reloads_total", "counter", "Loads of the configuration after the first.");
    out.sample("", static_cast<uint64_t>(std::max(status.loads - 1, 0)));
    const lines_t lines = shown_lines();
    expose_states(&out, lines);
    expose_counters(&out, lines);
    expose_actions(&out, lines);
    expose_alarms(&out, lines);
    out.begin("line_last_message_time_seconds", "gauge",
              "When the last message came, 0 before it.");
    for (const shown_line_t &line : lines) {
        out.sample_seconds(line.label, line.stats->last_message_ms);
    }
    expose_requests(&out, lines);
    out.begin("line_refused_total", "counter",
              "Connections of others than the line's host, on a line with listen.");
    for (const shown_line_t &line : lines) {
        out.sample(line.label, line.stats->refused.get());
    }
    expose_calls(&out, lines);
    expose_undelivered(&out, lines);
    out.begin("load_success", "gauge",
              "0 after a load of the configuration that failed, also of a single host.");
    out.sample("", status.is_load_whole);
    return std::move(out.text());
}

// A new file, whatever had the name.
unique_fd_t make_file(const char *path) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    constexpr mode_t MODE = 0644;
    unique_fd_t file(open(path, FLAGS, MODE));
    if (!file && errno == EEXIST) {
        unlink(path);
        file.reset(open(path, FLAGS, MODE));
    }
    return file;
}

// Returns 0 or errno.
int write_file(const std::string &path, const std::string &content) {
    const std::string temporary = path + ".new";
    unique_fd_t file = make_file(temporary.c_str());
    if (!file) {
        return errno;
    }
    errno = ENOSPC;  // a short write sets no error code
    if (write(file.get(), content.data(), content.size()) != std::ssize(content) ||
        close(file.release()) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        return error;
    }
    return 0;
}

void write_status(const std::string &content, int64_t now) {
    exposition_t out;
    out.begin("status_time_seconds", "gauge", "When this was written.");
    out.sample_seconds("", now);
    const int error = write_file(status.file, content + out.text());
    if (error != 0 && !status.failed) {
        LOG_AS(LEVEL_ERROR, "status_update", "Unable to write status file %s: %s\n",
               status.file.c_str(), strerror(error));
        status.failed = true;
    }
}

}  // namespace

void status_init(const char *file) noexcept {
    if (status.file != file) {
        unlink(status.file.c_str());  // nobody writes it any more
    }
    status.file = file;
    status.loaded_ms = milliseconds_now();
    status.loads++;
    status.failed = false;
    status.content.clear();
    status.is_load_whole = true;
}

void status_load_failed() noexcept {
    status.is_load_whole = false;
}

bool status_is_kept() noexcept {
    return !status.file.empty();
}

void status_update() noexcept {
    if (!status_is_kept()) {
        return;
    }
    const int64_t now = milliseconds_now();
    std::string content = content_of(true);
    if (content != status.content || now - status.written_ms >= REWRITE_MS ||
        now < status.written_ms) {
        write_status(content, now);
        status.content = std::move(content);
        status.written_ms = now;
    }
}

void status_end() noexcept {
    if (status_is_kept()) {
        write_status(content_of(false), milliseconds_now());
    }
}
